"""`tavloctl check`: certificate and key, what other programs write, and what the daemon writes itself,
for the user that it is."""

import os
import shutil
import subprocess

import pytest

from conftest import USER
from support import certificates
from support.tavloctl import as_root, check, check_as_nobody, findings

PLAIN = "the TLS port speaks plain HTTP"
BEFORE_THE_START = "put certificate and key there before the first start"
WITH_KEY = "clients with the key are answered with 500"
NO_MAC = "GET /api/mac is answered with 500"


def cannot(path, verb, consequence):
    return (str(path), f"user '{USER}' may not {verb} it: {consequence}",
            f"chown {USER} {path}, or widen its mode")


def missing(path, consequence, cure):
    return (str(path), f"is missing: {consequence}", cure)


@as_root
def test_what_belongs_to_the_user_works(owned):
    assert findings(owned) == []


# --- certificate and key ---

@pytest.mark.parametrize("name", ["mirel.crt", "mirel.key"])
def test_a_missing_certificate_or_key(root, name):
    (root.agent_directory / name).unlink()
    assert findings(root) == [missing(root.agent_directory / name, PLAIN, BEFORE_THE_START)]


@as_root
@pytest.mark.parametrize("name", ["mirel.crt", "mirel.key"])
def test_a_certificate_or_key_that_the_user_may_not_read(owned, name):
    path = owned.agent_directory / name
    shutil.chown(path, "root", "root")
    path.chmod(0o600)
    assert findings(owned) == [cannot(path, "read", PLAIN)]


@as_root
def test_a_directory_that_the_user_may_not_enter_is_named(owned):
    shutil.chown(owned.agent_directory, "root", "root")
    owned.agent_directory.chmod(0o700)
    assert findings(owned) == [
        (str(path), f"user '{USER}', who may not enter {owned.agent_directory}, may not read it: {PLAIN}",
         f"chmod +x {owned.agent_directory}, or put the file elsewhere")
        for path in (owned.certificate, owned.key)]


@pytest.mark.parametrize("kind", ["P-256", "RSA"])
def test_a_key_of_another_certificate(root, kind):
    other = root.directory / "other"
    certificates.make_pair(other, root.key, kind=kind)
    assert findings(root) == [
        (str(root.key), f"is not the key of {root.certificate}: {PLAIN}",
         "put the two there that belong together")]


@pytest.mark.parametrize("days, what", [
    (("20200101000000Z", "20210101000000Z"),
     "the certificate of CN = tavlo has expired, on Jan  1 00:00:00 2021 GMT: clients refuse it"),
    (("20900101000000Z", "20910101000000Z"),
     "the certificate of CN = tavlo is not valid before Jan  1 00:00:00 2090 GMT: clients refuse it"),
], ids=["expired", "not yet"])
def test_a_certificate_that_does_not_hold_now(root, days, what):
    sign_for(root, *days)
    [(where, text, cure)] = findings(root)
    assert (where, text) == (str(root.certificate), what)
    assert "restart the daemon" in cure


def sign_for(root, start, end):
    """A certificate that holds from then to then, by the authority that it is itself."""
    work = root.directory / "ca"
    work.mkdir()
    (work / "index").touch()
    (work / "config").write_text(
        f"[ca]\ndefault_ca=it\n[it]\ndatabase={work}/index\nnew_certs_dir={work}\n"
        "default_md=sha256\npolicy=any\nrand_serial=yes\n[any]\ncommonName=supplied\n")
    subprocess.run(["openssl", "req", "-new", "-key", root.key, "-subj", "/CN=tavlo", "-out",
                    work / "request"], check=True, capture_output=True)
    subprocess.run(["openssl", "ca", "-batch", "-notext", "-config", work / "config", "-selfsign",
                    "-keyfile", root.key, "-startdate", start, "-enddate", end, "-in",
                    work / "request", "-out", root.certificate], check=True, capture_output=True)


def test_an_issuer_that_has_expired_is_found_in_the_chain(root):
    leaf = root.certificate.read_bytes()
    sign_for(root, "20200101000000Z", "20210101000000Z")
    root.certificate.write_bytes(leaf + root.certificate.read_bytes())
    [(where, what, _)] = findings(root)
    assert where == str(root.certificate) and "has expired" in what


def test_a_key_with_a_pass_phrase(root):
    certificates.encrypt_key(root.key, "secret")
    assert findings(root) == [
        (str(root.key), f"has a pass phrase, which nobody can type in: {PLAIN}",
         f"openssl pkey -in {root.key} -out the-same-without")]


@pytest.mark.parametrize("text", [b"", b"no PEM\n"])
def test_files_that_hold_no_certificate_and_no_key(root, text):
    root.certificate.write_bytes(text)
    root.key.write_bytes(text)
    (certificate, no_chain, _), (key, no_key, _) = findings(root)
    assert (certificate, key) == (str(root.certificate), str(root.key))
    assert no_chain.startswith("is no certificate chain in PEM (") and no_chain.endswith(PLAIN)
    assert no_key.startswith("is no private key in PEM (") and no_key.endswith(PLAIN)


@pytest.mark.parametrize("name", ["certificate", "key"])
def test_a_certificate_or_key_that_is_no_file(root, name):
    """A FIFO would be waited for."""
    path = getattr(root, name)
    path.unlink()
    os.mkfifo(path)
    assert findings(root) == [(str(path), f"is no file: {PLAIN}", "put a file there")]


def test_a_chain_that_works_is_no_finding(root):
    certificates.make_issued_pair(root.certificate, root.key, root.directory)
    assert findings(root) == []


# --- the router information and the device list ---

def test_router_information_that_is_missing(root):
    root.router_info.unlink()
    assert findings(root) == [missing(
        root.router_info, WITH_KEY,
        "write it, with a line 'pairing_key: ...', or fix \"routerInfoPath\"")]


@as_root
@pytest.mark.parametrize("mode", [0o644, 0o600])
def test_router_information_that_the_user_may_not_lock(owned, mode):
    shutil.chown(owned.router_info, "root", "root")
    owned.router_info.chmod(mode)
    assert findings(owned) == [cannot(owned.router_info, "read and write", WITH_KEY)]


@pytest.mark.parametrize("text", ["", "model: x\n", "pairing_key:\n", "pairing_key: \n",
                                  "Pairing_Key: 0123456789abcdef\n"])
def test_router_information_without_a_key(root, text):
    root.write_router_info(text)
    assert findings(root) == [(str(root.router_info), f"has no line 'pairing_key: ...': {WITH_KEY}",
                               "add one, then send the daemon SIGHUP")]


@pytest.mark.parametrize("key", ["a", "0123456789abcde"])
def test_a_key_that_is_weak(root, key):
    root.write_pairing_key(key)
    assert findings(root) == [
        (str(root.router_info), f"the pairing key has {len(key)} characters, and nothing limits the "
         "rate at which they are guessed", "take 16 or more at random: openssl rand -hex 16")]


def test_a_key_of_sixteen_characters_is_no_finding(root):
    root.write_pairing_key("0123456789abcdef")
    assert findings(root) == []


@pytest.mark.parametrize("ending", [" ", "\r", "\t"])
def test_a_key_that_no_client_can_send(root, ending):
    root.write_pairing_key("0123456789abcdef" + ending)
    assert findings(root) == [
        (str(root.router_info), "the pairing key ends in a blank or a carriage return, which belongs "
         "to it: no client's key fits", "end the line behind the key, with a line feed alone")]


def test_router_information_that_is_too_large(root):
    root.write_router_info("x" * 1048577)
    assert findings(root) == [(str(root.router_info),
                               f"has more than 1048576 bytes: {WITH_KEY}", "mend what writes it")]


def test_a_device_list_that_is_a_directory(root):
    root.device_list.unlink()
    root.device_list.mkdir()
    assert findings(root) == [
        (str(root.device_list), f"is no file: {NO_MAC}", "put a file there")]


@as_root
def test_what_this_may_not_read_cannot_be_looked_at(root):
    root.settings["agentUser"] = "daemon"
    for path in (root.router_info, root.device_list, root.certificate, root.key):
        path.chmod(0)
    found, unseen = check_as_nobody(root)
    assert [where for where, _, _ in found] == []
    assert [(str(path), f"Failed to read file {path}: 13 Permission denied")
            for path in (root.router_info, root.device_list)] == [
        each for each in unseen if "Failed" in each[1]]
    assert {(str(path), "13 Permission denied") for path in (root.certificate, root.key)} < set(unseen)


def test_a_device_list_that_is_missing(root):
    root.device_list.unlink()
    assert findings(root) == [missing(root.device_list, NO_MAC,
                                      'let the router write it, or fix "deviceDiscoveryPath"')]


@as_root
def test_a_device_list_that_the_user_may_not_lock(owned):
    shutil.chown(owned.device_list, "root", "root")
    assert findings(owned) == [cannot(owned.device_list, "read and write", NO_MAC)]


def test_a_device_list_that_is_no_json_is_shown_with_line_and_column(root):
    root.device_list.write_text('{\n  "devices": [,]\n}')
    assert findings(root) == [
        (f"{root.device_list}:2:15", f"no JSON: Invalid value., offset :16: {NO_MAC}",
         "mend what writes it")]


def test_a_device_list_that_would_take_much_memory_is_shown(root):
    root.device_list.write_text("[" * 1048576)
    assert findings(root) == [
        (str(root.device_list), f"The device list takes too much memory: {NO_MAC}",
         "mend what writes it")]


# --- what the daemon writes ---

PLANTED = ": they can put a file or a link there first, or read what is in it"
NO_BODY = "a request with a body is answered with 500"
NO_RECORD = "a crash leaves no record"


def write_places(root):
    return {"body": (root.directory / "run", root.directory / "run/body", NO_BODY),
            "record": (root.directory / "tmp", root.directory / "tmp/tavlo-backtrace.log", NO_RECORD)}


@as_root
@pytest.mark.parametrize("place", ["body", "record"])
def test_a_directory_that_is_missing(owned, place):
    directory, _, consequence = write_places(owned)[place]
    directory.rmdir()
    assert findings(owned) == [
        missing(directory, consequence, f"install -d -m 750 -o {USER} {directory}")]


@as_root
@pytest.mark.parametrize("place", ["body", "record"])
def test_a_directory_that_the_user_may_not_write_to(owned, place):
    directory, _, consequence = write_places(owned)[place]
    shutil.chown(directory, "root", "root")
    directory.chmod(0o755)
    assert findings(owned) == [cannot(directory, "write to", consequence)]


@as_root
@pytest.mark.parametrize("place", ["body", "record"])
@pytest.mark.parametrize("owner, group, mode, who", [
    (USER, "nogroup", 0o1777, "everybody"), (USER, "mail", 0o770, "group 'mail'"),
    ("mail", "nogroup", 0o770, "user 'mail'")])
def test_a_directory_where_others_may_plant_links(owned, place, owner, group, mode, who):
    directory, _, _ = write_places(owned)[place]
    shutil.chown(directory, owner, group)
    directory.chmod(mode)
    assert findings(owned) == [
        (str(directory), f"{who} may write there{PLANTED}",
         f"chmod go-w {directory}, and chown it to root or '{USER}'")]


@as_root
@pytest.mark.parametrize("place", ["body", "record"])
def test_a_file_that_is_there_already_and_not_the_users(owned, place):
    _, path, consequence = write_places(owned)[place]
    path.touch(mode=0o644)
    assert findings(owned) == [cannot(path, "write to", consequence)]


@pytest.mark.parametrize("plant", [
    lambda path: path.symlink_to(path.parent.parent / "tavlo.json"),
    lambda path: path.mkdir(), os.mkfifo,
    lambda path: path.hardlink_to(path.parent.parent / "tavlo.json")],
    ids=["link", "directory", "fifo", "second name"])
def test_a_file_that_is_none(root, plant):
    root.write_config()
    path = root.directory / "tmp/tavlo-backtrace.log"
    plant(path)
    assert findings(root) == [(str(path), f"is a link, or no file: {NO_RECORD}", f"rm {path}")]


# --- the log ---

NO_LOG = "the daemon goes on without a log, and without an error"
LOST = "after SIGHUP there are no more lines in it, and no error"


@as_root
def test_a_log_that_is_the_users_is_no_finding(owned):
    log = owned.directory / "log"
    log.touch()
    shutil.chown(log, USER)
    assert findings(owned, "-f", log) == []


@as_root
def test_a_log_that_the_user_may_not_write_to_after_the_start(owned):
    log = owned.directory / "log"
    log.touch(mode=0o644)
    assert findings(owned, "-f", log) == [cannot(log, "write to", LOST)]


@as_root
def test_a_log_that_root_would_make(owned):
    log = owned.directory / "log"
    assert findings(owned, "-f", log) == [
        (str(log), f"is missing: root makes it at the start, and user '{USER}' may not write to it: "
         f"{LOST}", f"install -m 640 -o {USER} /dev/null {log}, or start the daemon as that user")]


@as_root
def test_a_log_that_root_would_make_in_a_directory_of_its_own(owned):
    directory = owned.directory / "logs"
    directory.mkdir(mode=0o755)
    assert [where for where, _, _ in findings(owned, "-f", directory / "log")] == [
        str(directory / "log")]


@as_root
def test_a_log_in_a_directory_that_the_daemons_own_user_may_not_write_to(root):
    directory = root.directory / "logs"
    directory.mkdir(mode=0o755)
    found, _ = check_as_nobody(root, "-f", directory / "log")
    assert cannot(directory, "write to", NO_LOG) in found


@as_root
def test_a_log_whose_directory_is_missing(owned):
    log = owned.directory / "none/log"
    assert findings(owned, "-f", log) == [
        missing(log.parent, NO_LOG, f"install -d -m 750 -o {USER} {log.parent}")]


def test_a_log_that_is_no_file(root):
    log = root.directory / "log"
    log.mkdir()
    assert findings(root, "-f", log) == [(str(log), f"is no file: {NO_LOG}", "name a file with -f")]


@as_root
@pytest.mark.parametrize("owner, what", [
    (0, ""), (1, "a link of another user, which is not followed"),
    (65534, "a link of the daemon's user, not followed where root starts it")])
def test_a_log_that_is_a_link(owned, owner, what):
    log = owned.directory / "log"
    target = owned.directory / "target"
    target.touch()
    shutil.chown(target, USER)
    log.symlink_to(target)
    os.lchown(log, owner, owner)
    assert findings(owned, "-f", log) == ([] if what == "" else [
        (str(log), f"is {what}: {NO_LOG}", f"rm {log}, or chown -h root {log}")])


@pytest.mark.parametrize("target", ["none/log", "log"], ids=["missing", "itself"])
def test_a_log_that_is_a_link_to_nothing(root, target):
    log = root.directory / "log"
    log.symlink_to(root.directory / target)
    [finding] = findings(root, "-f", log)
    assert finding[:2] == (
        str(log), f"is a link to what is missing: where that cannot be made, {NO_LOG}")


@as_root
def test_a_log_that_root_would_make_where_the_user_does_not_get(owned):
    directory = owned.directory / "closed"
    (directory / "logs").mkdir(parents=True)
    directory.chmod(0o700)
    assert [where for where, _, _ in findings(owned, "-f", directory / "logs/log")] == [
        str(directory / "logs/log")]


@pytest.mark.parametrize("plant", [lambda path: path.symlink_to("/dev/null"), os.mkfifo],
                         ids=["device", "fifo"])
def test_a_log_that_others_take_is_no_finding(root, plant):
    plant(root.directory / "log")
    assert findings(root, "-f", root.directory / "log") == []


def test_a_log_that_the_daemons_own_user_makes_is_no_finding(root):
    assert findings(root, "-f", root.directory / "log") == []


@as_root
def test_a_log_in_a_directory_where_others_may_plant_links(owned):
    directory = owned.directory / "logs"
    directory.mkdir()
    directory.chmod(0o1777)
    (directory / "log").touch(mode=0o666)
    (directory / "log").chmod(0o666)
    assert findings(owned, "-f", directory / "log") == [
        (str(directory), "everybody may write there: they can put a link there first, or take the "
         "log away", f"chmod go-w {directory}, and chown it to root or '{USER}'")]


# --- the user ---

def test_a_user_that_there_is_not(root):
    root.settings["agentUser"] = "no-such-user"
    assert check(root) == ([
        ("agentUser", "there is no user 'no-such-user': the daemon does not start",
         'adduser --system --group --no-create-home no-such-user, or fix "agentUser"')], [])


@as_root
def test_the_groups_of_the_user_count(owned):
    """`nobody` is in no group but its own; the account of the test is in one more."""
    accounts = owned.directory / "accounts"
    accounts.mkdir()
    for name, line in {"passwd": "tavlo-test-user:x:54321:54322::/:/bin/false\n",
                       "group": "tavlo-test-group:x:54323:tavlo-test-user\n"}.items():
        with open(f"/etc/{name}", encoding="utf-8") as real:
            (accounts / name).write_text(real.read() + line, encoding="utf-8")
    prefix = ["unshare", "--mount", "--propagation", "private", "sh", "-c",
              f'mount --bind "{accounts}/passwd" /etc/passwd && '
              f'mount --bind "{accounts}/group" /etc/group && exec "$@"', "sh"]
    for path in (owned.directory, *owned.directory.rglob("*")):
        os.chown(path, 54321, 54322)
    owned.settings["agentUser"] = "tavlo-test-user"
    for path in (owned.certificate, owned.key):
        os.chown(path, 0, 54323)
        path.chmod(0o640)
    assert check(owned, prefix=prefix) == ([], [])
    os.chown(owned.key, 0, 54324)
    [(where, what, _)], _ = check(owned, prefix=prefix)
    assert where == str(owned.key)
    assert what == f"user 'tavlo-test-user' may not read it: {PLAIN}"
