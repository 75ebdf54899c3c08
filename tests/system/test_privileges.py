"""Life as the user of `agentUser`: what it can still do, and what it cannot when files belong to
root. The user is in an account file that only this daemon sees."""

import os
import resource
from pathlib import Path

import pytest

from support.clients import ask
from support.network_namespace import NetworkNamespace
from support.scratch_root import PAIRING_KEY
from support.waiting import EMULATOR, SANITIZER

USER, UID, GID = "tavlo-test-user", 54321, 54322
KEY = {"PairingKey": PAIRING_KEY}
CHANGE = ("PATCH", "/api/1/router-ref")

pytestmark = pytest.mark.skipif(os.getuid() != 0, reason="only root can become somebody else")


@pytest.fixture
def start(root, make_daemon):
    """Starts the daemon as USER; its files and directories are root's, readable for all."""
    passwd = root.directory / "passwd"
    passwd.write_text(Path("/etc/passwd").read_text(encoding="utf-8") +
                      f"{USER}:x:{UID}:{GID}::/nonexistent:/bin/false\n", encoding="utf-8")
    root.directory.chmod(0o755)
    root.settings["agentUser"] = USER

    def start_daemon(prefix=(), **popen_options):
        see_user = ["unshare", "--mount", "--propagation", "private",
                    "sh", "-c", 'mount --bind "$0" /etc/passwd && exec "$@"', str(passwd)]
        daemon = make_daemon(prefix=[*prefix, *see_user]).start(**popen_options)
        daemon.wait_for_log(f"DEBUG: bool Init: Running as '{USER}'$")
        return daemon

    return start_daemon


@pytest.fixture
def owned(root, start):
    """Everything there belongs to the user, the log file as well."""
    (root.directory / "log").touch()
    for directory, _, files in os.walk(root.directory):
        for path in (directory, *(os.path.join(directory, name) for name in files)):
            os.chown(path, UID, GID)
    return start


def status(daemon, field, thread=None):
    path = f"/proc/{daemon.pid}/task/{thread or daemon.pid}/status"
    with open(path, encoding="ascii") as lines:
        return next(line.split()[1:] for line in lines if line.startswith(field + ":"))


def owner(path):
    info = path.stat()
    return info.st_uid, info.st_gid


def write_hook(root, script):
    root.settings["agentDataPath"] = str(root.agent_data)
    (root.external_hooks / "agent").rmdir()
    return root.write_hook(root.internal_hooks, "10-hook", "#!/bin/sh\n" + script)


# --- who it is ---

def test_every_thread_has_the_users_ids_for_good(owned):
    daemon = owned()
    threads = sorted(os.listdir(f"/proc/{daemon.pid}/task"), key=int)
    if EMULATOR:
        del threads[1]  # the emulator's own, which was there before the daemon began
    assert len(threads) >= 3
    for thread in threads:
        # Real, effective, saved, and that for files.
        assert status(daemon, "Uid", thread) == [str(UID)] * 4
        assert status(daemon, "Gid", thread) == [str(GID)] * 4
        for capabilities in ("CapPrm", "CapEff", "CapAmb"):
            assert int(status(daemon, capabilities, thread)[0], 16) == 0


@pytest.mark.parametrize("options, groups", [
    (["--groups", "4711,4712"], ["4711", "4712"]),
    (["--clear-groups"], []),
], ids=["some", "none"])
def test_supplementary_groups_are_the_starting_processs_own(root, owned, options, groups):
    seen = root.directory / "seen"
    write_hook(root, f"id -G >{seen}; exit 1")
    daemon = owned(prefix=["setpriv", *options])
    assert status(daemon, "Groups") == groups
    assert ask(root.http_port, *CHANGE, body=b"x").status == 200
    assert seen.read_text().split() == [str(GID), *groups]


# --- what works with files of the user's ---

def test_the_log_moves_to_a_file_that_the_user_makes(owned):
    daemon = owned()
    old = daemon.log.with_name("log.1")
    daemon.log.rename(old)
    daemon.hang_up()
    daemon.wait_for_log("Update pairing key$")
    assert owner(daemon.log) == (UID, GID)


def test_the_pairing_key_is_read_again(root, owned, sdk_host):
    daemon = owned()
    root.write_pairing_key("another")
    daemon.hang_up()
    answer = ask(root.https_port, "GET", "/api/x", headers={"PairingKey": "another"}, tls=True)
    assert answer.status == 200


def test_the_device_list_is_read(root, owned):
    owned()
    assert ask(root.http_port, "GET", "/api/mac").body == b"02:00:5e:10:00:01"


def test_hooks_and_the_body_file_are_the_users(root, owned):
    seen = root.directory / "seen"
    write_hook(root, f'id -u >{seen}; id -g >>{seen}; stat -c "%u %g" "$6" >>{seen}; '
               f'cat "$6" >>{seen}; exit 1')
    owned()
    assert ask(root.http_port, *CHANGE, body=b"the body").status == 200
    assert seen.read_text() == f"{UID}\n{GID}\n{UID} {GID}\nthe body"
    assert owner(seen) == (UID, GID)
    assert not root.agent_data.exists()


def test_the_crash_record_is_the_users(root, owned):
    daemon = owned()
    daemon.crash()
    record = root.directory / "tmp" / "tavlo-backtrace.log"
    assert "Process exit due to signal: 11\n" in record.read_text()
    assert owner(record) == (UID, GID)


# --- what does not with files of root's ---

def test_a_log_of_roots_is_lost_silently_at_hup(root, start):
    os.chown(root.router_info, UID, GID)
    daemon = start()
    # The one that was opened as root is written on.
    assert owner(daemon.log) == (0, 0)
    daemon.hang_up()
    size = daemon.log.stat().st_size
    assert daemon.log_text().endswith("DEBUG: void Run: HUP\n")
    mark = daemon.console.stat().st_size
    assert ask(root.http_port, "GET", "/").status == 404
    assert daemon.log.stat().st_size == size
    assert [line for line in daemon.log_text(path=daemon.console).splitlines()
            if "ERROR: " in line and str(daemon.log) in line] == []
    assert "GET /" in daemon.log_text(since=mark, path=daemon.console)
    os.chown(daemon.log, UID, GID)
    daemon.hang_up()
    daemon.wait_for_log("Update pairing key$", since=size)


@pytest.mark.parametrize("mode", [0o600, 0o644], ids=oct)
def test_router_information_of_roots_gives_no_pairing_key(root, start, mode):
    root.router_info.chmod(mode)
    daemon = start()
    assert daemon.wait_for_log("ERROR: void UpdatePairingKey: (.*)$")[0][1] == (
        f"Failed to lock file {root.router_info}: 13 Permission denied")
    answer = ask(root.https_port, "GET", "/api/x", headers=KEY, tls=False)
    assert (answer.status, answer.reason) == (500, "Pairing key is not configured")


@pytest.mark.parametrize("mode", [0o600, 0o644], ids=oct)
def test_a_device_list_of_roots_is_an_internal_error(root, start, mode):
    root.device_list.chmod(mode)
    daemon = start()
    answer = ask(root.http_port, "GET", "/api/mac")
    assert (answer.status, answer.reason) == (500, "Internal error")
    daemon.wait_for_log(f"ERROR: .*: Failed to lock file {root.device_list}: 13 Permission denied$")


def test_a_body_file_in_a_directory_of_roots_is_an_internal_error(root, start):
    write_hook(root, "exit 1")
    daemon = start()
    answer = ask(root.http_port, *CHANGE, body=b"x")
    assert (answer.status, answer.reason) == (500, "Internal error")
    assert ("ERROR", f"Failed to write file {root.agent_data}: 13 Permission denied") in (
        daemon.messages())


@pytest.mark.parametrize("path, mode, line", [
    ("certificate", 0o600, "ERROR: .*: Failed in loading certificate chain file: {}$"),
    ("key", 0o600, "ERROR: .*: Failed in loading private key file: {}$"),
    ("agent_directory", 0o700, "DEBUG: .*: Certificate files {}/mirel.crt and .* do not exist$"),
])
def test_a_certificate_that_only_root_can_read_leaves_plain_http(root, start, path, mode, line):
    getattr(root, path).chmod(mode)
    daemon = start()
    assert ask(root.https_port, "GET", "/", tls=False).status == 404
    daemon.wait_for_log(line.format(getattr(root, path)))


def test_a_hook_directory_that_only_root_can_list_is_an_internal_error(root, start):
    root.directory.chmod(0o777)
    write_hook(root, "exit 1")
    (root.internal_hooks / "agent").chmod(0o700)
    daemon = start()
    answer = ask(root.http_port, *CHANGE, body=b"x")
    assert (answer.status, answer.reason) == (500, "Internal error")
    assert ("ERROR", "Failed to invoke agent hook: failed to list directory "
            f"'{root.internal_hooks}/agent'") in daemon.messages()


def test_a_hook_that_only_root_can_execute_ends_requests_as_if_it_had_said_so(root, start,
                                                                            sdk_host):
    seen = root.directory / "seen"
    root.directory.chmod(0o777)
    path = write_hook(root, f"touch {seen}; exit 0")
    path.chmod(0o700)
    daemon = start()
    answer = ask(root.http_port, "GET", "/api/version")
    assert (answer.status, answer.body) == (200, b"")
    assert sdk_host.requests == []
    assert not seen.exists()
    assert ("DEBUG", "Call terminated by hook") in daemon.messages()
    errors = [text for level, text in daemon.messages() if level == "ERROR" and "hook" in text]
    assert errors == [f"Failed to execute {path}: 13 Permission denied"]


def test_a_hook_that_the_user_can_execute_and_not_read_fails(root, start):
    path = write_hook(root, "exit 0")
    path.chmod(0o711)
    daemon = start()
    assert ask(root.http_port, "GET", "/api/version").status == 500
    assert any(text.startswith(f"Failed to invoke agent hook: failed to call script '{path}' as ")
               for level, text in daemon.messages() if level == "ERROR")


def test_in_a_directory_of_roots_there_is_no_crash_record(root, start):
    daemon = start()
    daemon.crash()
    assert list((root.directory / "tmp").iterdir()) == []
    assert "CrashHandler: Process exit due to signal: 11 (Segmentation fault)" in daemon.log_text()


# --- what the change of the user itself costs ---

@pytest.mark.skipif(SANITIZER != "", reason="a sanitizer switches core files off")
@pytest.mark.parametrize("user", [None, USER])
def test_a_process_that_changed_its_user_leaves_no_core_file(root, owned, make_daemon, user):
    if Path("/proc/sys/kernel/core_pattern").read_text() != "core\n":
        pytest.skip("this system does not leave cores where the process runs")
    if Path("/proc/sys/fs/suid_dumpable").read_text() != "0\n":
        pytest.skip("this system has processes leave cores that changed their user")
    if resource.getrlimit(resource.RLIMIT_CORE)[1] == 0:
        pytest.skip("core files are forbidden here")
    limit = ["prlimit", "--core=1048576:"]
    place = root.directory / "place"
    place.mkdir()
    os.chown(place, UID, GID)
    if user:
        daemon = owned(prefix=limit, cwd=place)
    else:
        root.settings["agentUser"] = None
        daemon = make_daemon(prefix=limit).start(cwd=place)
    daemon.crash()
    assert len(list(place.glob("core*"))) == (0 if user else 1)


def test_ports_below_1024_serve_loopback_but_no_lan_address(root, owned):
    root.settings["agentHttpPort"], root.settings["agentHttpsPort"] = 80, 443
    root.settings["lanInterface"] = "br0"
    with NetworkNamespace() as namespace:
        namespace.add_interface("br0", "192.0.2.1/24")
        daemon = owned(prefix=namespace.prefix)
        failures = daemon.wait_for_log(
            r"ERROR: void tavlo::AgentHost::Invoke: (Failed to bind .*)$", count=2)
        assert sorted(failure[1] for failure in failures) == [
            f"Failed to bind endpoint '192.0.2.1:{port}' as errno 13" for port in (443, 80)]
        assert namespace.listening() == {("127.0.0.1", 80), ("127.0.0.1", 443)}
        assert namespace.curl("http://127.0.0.1/api/mac") == "02:00:5e:10:00:01"
        assert namespace.curl("--insecure", "https://127.0.0.1/api/mac") == "02:00:5e:10:00:01"
        daemon.stop()
