"""The Debian packages: what is in them, what lintian says, and a life from installation to purge.

That life is lived in a scratch root: this machine's own files below an overlay that takes every
change, in namespaces of its own for mounts, processes and the network.
"""

import json
import os
import re
import shutil
import socket
import subprocess
import threading
from pathlib import Path

import pytest
from conftest import BUILD, SOURCE, documents, manual_pages, wait_for

VERSION = (BUILD / "CMakeCache.txt").read_text().split("CMAKE_PROJECT_VERSION:STATIC=")[1].split()[0]
CONFIGURATION = "etc/tavlo/tavlo.json"
LOG = "var/log/tavlo/tavlo.log"
WANTED = ["etc/systemd/system/multi-user.target.wants/tavlo.service",
          "etc/systemd/system/paths.target.wants/tavlo.path"]
MAINTAINER = "Research & Development / Routers"


def run(*command, **options):
    return subprocess.run(command, check=True, capture_output=True, text=True, **options).stdout


@pytest.fixture(name="packages", scope="module")
def built_packages(tmp_path_factory):
    # Names of directories and of maintainers may have what means something to a shell or to sed.
    scratch = tmp_path_factory.mktemp("someone's files")
    source, output = scratch / "the source", scratch / "the packages"
    source.symlink_to(SOURCE)
    run(source / "tools/deb", env={**os.environ, "BUILD": str(BUILD), "OUTPUT": str(output),
                                   "DEBFULLNAME": MAINTAINER, "DEBEMAIL": "who@tavlo.example"})
    return output


@pytest.fixture(name="package")
def package_of_the_daemon(packages):
    return next(packages.glob("tavlo_*.deb"))


@pytest.fixture(name="debug_package")
def package_of_the_debug_file(packages):
    return next(packages.glob("tavlo-dbg_*.deb"))


def contents(package):
    """Path -> mode and owner, of all files and of the directories that are the package's own."""
    lines = [line.split() for line in run("dpkg-deb", "--contents", package).splitlines()]
    return {fields[5][1:]: f"{fields[0]} {fields[1]}" for fields in lines
            if fields[0].startswith("-") or "/etc/tavlo/" in fields[5]}


def test_the_package_holds_these_files(package):
    program, file, directory = (f"{mode} root/root"
                                for mode in ("-rwxr-xr-x", "-rw-r--r--", "drwxr-xr-x"))
    pages = {f"/usr/share/man/man{name[-1]}/{name}.gz": file for name in manual_pages()}
    shared = {f"/usr/share/doc/tavlo/{path}": program if is_program else file
              for path, is_program in documents().items()}
    assert contents(package) == pages | shared | {
        "/usr/sbin/tavlo": program,
        "/usr/sbin/tavloctl": program,
        "/usr/bin/decode-backtrace": program,
        "/lib/systemd/system/tavlo.path": file,
        "/lib/systemd/system/tavlo.service": file,
        "/etc/logrotate.d/tavlo": file,
        "/etc/tavlo/": directory,
        "/etc/tavlo/agent/": directory,
        "/etc/tavlo/hooks/": directory,
        "/etc/tavlo/hooks/agent/": directory,
        "/etc/tavlo/tavlo.json": file,
        "/usr/share/bash-completion/completions/tavlo": file,
        "/usr/share/bash-completion/completions/tavloctl": file,
        "/usr/share/doc/tavlo/changelog.gz": file,
        "/usr/share/doc/tavlo/copyright": file,
    }
    assert run("dpkg-deb", "--info", package, "conffiles").split() == [
        "/etc/logrotate.d/tavlo", "/etc/tavlo/tavlo.json"]
    assert run("dpkg-deb", "--field", package, "Version").strip() == VERSION
    maintainer = run("dpkg-deb", "--field", package, "Maintainer").strip()
    assert maintainer == f"{MAINTAINER} <who@tavlo.example>"


def build_id(path):
    return re.search(r"Build ID: ([0-9a-f]+)", run("readelf", "-n", path))[1]


def test_the_debug_files_lie_where_debuggers_look_for_them(package, debug_package, tmp_path):
    run("dpkg-deb", "--extract", package, tmp_path)
    ids = [build_id(tmp_path / "usr/sbin" / name) for name in ("tavlo", "tavloctl")]
    places = {f"/usr/lib/debug/.build-id/{each[:2]}/{each[2:]}.debug": each for each in ids}
    assert set(contents(debug_package)) == {
        *places, "/usr/share/doc/tavlo-dbg/changelog.gz", "/usr/share/doc/tavlo-dbg/copyright"}
    run("dpkg-deb", "--extract", debug_package, tmp_path)
    for place, each in places.items():
        assert build_id(tmp_path / place[1:]) == each


def test_lintian_has_nothing_to_say_against_them(packages):
    options = [] if manual_pages() else ["--suppress-tags=no-manual-page"]
    result = subprocess.run(
        ["lintian", "--allow-root", "--fail-on=error,warning", *options,
         next(packages.glob("*.changes"))], check=False, capture_output=True, text=True)
    assert (result.returncode, result.stdout) == (0, "")


MAKE_ROOT = r"""
set -e
mount -t tmpfs tmpfs "$1"
mkdir "$1/upper" "$1/work" "$1/root"
mount -t overlay overlay -o "lowerdir=/,upperdir=$1/upper,workdir=$1/work" "$1/root"
cd "$1/root"
mount -t tmpfs tmpfs dev
for node in null zero full random urandom tty; do
  touch dev/$node
  mount --bind /dev/$node dev/$node
done
mount -t tmpfs tmpfs run
mount -t tmpfs tmpfs tmp
mount -t proc proc proc
ip link set lo up
test -e var/lib/dpkg/status
echo ready
exec sleep infinity
"""
# No systemd runs there: a stand-in remembers what it was asked for and passes signals on. Links are
# still made by the real one.
SYSTEMCTL = """#!/bin/sh
echo "$*" >>/run/asked
case "$*" in
  *able* | *preset*) SYSTEMD_OFFLINE=1 exec systemctl.real "$@" ;;
  kill*) pkill -HUP -x tavlo ;;
esac
"""


class Machine:
    def __init__(self, keeper, directory):
        self.keeper = keeper
        self.pid = int(Path(f"/proc/{keeper.pid}/task/{keeper.pid}/children").read_text())
        self.upper = Path(f"/proc/{self.pid}/root{directory}/upper")
        self.root = Path(f"/proc/{self.pid}/root{directory}/root")
        self.inside = ["nsenter", f"--target={self.pid}", "--mount", "--net", "--pid", "chroot",
                       f"{directory}/root"]

    def run(self, *command):
        result = subprocess.run([*self.inside, *command], check=False, stdout=subprocess.PIPE,
                                stderr=subprocess.STDOUT, text=True, stdin=subprocess.DEVNULL,
                                env={"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL": "C",
                                     "DEBIAN_FRONTEND": "noninteractive"})
        assert result.returncode == 0, f"{command}: {result.stdout}"
        return result.stdout

    def install(self, package):
        shutil.copy(package, self.root / "tmp")
        self.run("dpkg", "--no-triggers", "--install", f"/tmp/{package.name}")

    def start(self):
        """What systemd does to start the unit, as far as a process can do it for another."""
        unit = dict(line.split("=", 1) for line in
                    (self.root / "lib/systemd/system/tavlo.service").read_text().splitlines()
                    if re.match(r"\w+=", line))
        user = unit["User"]
        self.run("install", "-d", "-o", user, "-g", user, "-m", unit["RuntimeDirectoryMode"],
                 f"/run/{unit['RuntimeDirectory']}")
        return self.start_command(
            f"umask {unit['UMask']}; exec setpriv --reuid={user} --regid={unit['Group']} "
            "--init-groups --bounding-set=-all --inh-caps=-all --no-new-privs " + unit["ExecStart"])

    def start_command(self, text):
        log = self.root / LOG
        before = log.stat().st_size if log.exists() else 0
        daemon = subprocess.Popen(
            [*self.inside, "sh", "-c", text], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL)
        wait_for(lambda: log.exists() and b"tavlo started" in log.read_bytes()[before:],
                 "tavlo started")
        return daemon

    def ask(self, *arguments):
        return self.run("curl", "--silent", "--output", "/dev/null", "--write-out", "%{http_code}",
                        *arguments)


class SystemLog:
    """Takes what programs of the machine tell their system log: pairs of priority and text."""

    LINE = re.compile(r"<(\d+)>\w+ [ \d]\d [\d:]+ tavlo\[\d+\]: (.*)", re.S)

    def __init__(self, machine):
        self.lines = []
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        directory = os.open(machine.root / "dev", os.O_PATH)
        self.socket.bind(f"/proc/self/fd/{directory}/log")  # no name may be longer than 107 bytes
        os.close(directory)
        (machine.root / "dev/log").chmod(0o666)
        threading.Thread(target=self._read, daemon=True).start()

    def _read(self):
        while data := self.socket.recv(65536):
            if line := self.LINE.fullmatch(data.decode()):
                self.lines.append((int(line[1]), line[2]))


def check_system_log(machine, log):
    """Each line of the log, with its priority: 8 for a user's program, 3 for an error, 6 for news."""
    lines = (machine.root / LOG).read_text().splitlines()
    assert any(" ERROR: " in line for line in lines) and any(" INFO: " in line for line in lines)
    expected = [(8 + (3 if " ERROR: " in line else 6), line) for line in lines]
    wait_for(lambda: len(log.lines) >= len(expected), "all lines in the system log")
    assert log.lines == expected


def stop(machine, daemon):
    machine.run("pkill", "-TERM", "-x", "tavlo")
    assert daemon.wait(20) == 0


@pytest.fixture(name="machine")
def scratch_machine(tmp_path):
    if os.geteuid() != 0:
        pytest.skip("only root can make a scratch root")
    keeper = subprocess.Popen(
        ["unshare", "--mount", "--net", "--pid", "--fork", "--kill-child", "sh", "-c", MAKE_ROOT,
         "sh", tmp_path], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    try:
        if keeper.stdout.readline() != "ready\n":
            pytest.skip(f"no scratch root here: {keeper.communicate()[1].strip()}")
        yield Machine(keeper, tmp_path)
    finally:
        keeper.kill()
        keeper.communicate()


def next_version(package, directory):
    """The same package as the one after it."""
    run("dpkg-deb", "--raw-extract", package, directory)
    control = directory / "DEBIAN/control"
    control.write_text(control.read_text().replace(f"Version: {VERSION}\n", f"Version: {VERSION}+1\n"))
    run("dpkg-deb", "--build", "-Zxz", "-z1", directory, f"{directory}.deb")
    return Path(f"{directory}.deb")


def set_up_systemctl(machine):
    # As a container's own, it would keep services from being started.
    (machine.root / "usr/sbin/policy-rc.d").unlink(missing_ok=True)
    path = machine.root / "usr/bin/systemctl"
    path.rename(path.with_suffix(".real"))
    path.write_text(SYSTEMCTL)
    path.chmod(0o755)
    (machine.root / "run/systemd/system").mkdir(parents=True)


def check_installed(machine):
    for name in ("var/lib/tavlo", "var/lib/tavlo/tmp", "var/log/tavlo"):
        assert machine.run("stat", "-c", "%U:%G %a", f"/{name}").strip() == "tavlo:tavlo 750"
    assert machine.run("id", "-nG", "tavlo").strip() == "tavlo"
    for name in WANTED:
        assert os.readlink(machine.root / name) == f"/lib/systemd/system/{Path(name).name}"
        machine.run("systemd-analyze", "verify", "--man=no", f"/lib/systemd/system/{Path(name).name}")


def check_at_work(machine):
    hook = machine.root / "etc/tavlo/hooks/agent/10-ends-changes"
    hook.write_text('#!/bin/sh\n[ "$2" = GET ] || [ ! -s "$6" ]\n')
    hook.chmod(0o755)
    # Nobody is there to forward to, but the script ends what has no body to look at.
    url = "http://127.0.0.1:60278/api/1"
    assert machine.ask(f"{url}/router-info") == "500"
    assert machine.ask("-X", "PATCH", "--data", "x", f"{url}/router-ref") == "200"
    status = machine.run("sh", "-c", "cat /proc/$(pgrep -x tavlo)/status")
    user = machine.run("id", "-u", "tavlo").strip()
    assert re.search(r"^Uid:((\s+\d+)+)$", status, re.M)[1].split() == [user] * 4
    group = machine.run("id", "-g", "tavlo").strip()
    assert set(re.search(r"^Groups:(.*)$", status, re.M)[1].split()) <= {group}
    assert re.search(r"^CapEff:\s+0+$", status, re.M)


def check_findings(machine):
    """What the package cannot bring along, and nothing else."""
    found = json.loads(machine.run(
        "sh", "-c", f"tavloctl check --json -c /{CONFIGURATION} -f /{LOG} || [ $? -eq 1 ]"))
    assert [each["where"] for each in found["findings"]] == [
        "/etc/tavlo/agent/mirel.crt", "/etc/tavlo/agent/mirel.key", "/var/lib/tavlo/router_info",
        "/var/lib/tavlo/devicelist.json", "br0"]
    assert found["unseen"] == []


def check_rotation(machine):
    before = (machine.root / LOG).read_text()
    machine.run("logrotate", "--force", "--state", "/run/logrotate", "/etc/logrotate.d/tavlo")
    assert (machine.root / f"{LOG}.1").read_text() == before
    assert "kill --kill-who=main --signal=HUP tavlo.service" in asked(machine)
    wait_for((machine.root / LOG).exists, "a new log file")
    assert machine.ask("http://127.0.0.1:60278/api/version") == "500"
    wait_for(lambda: "ERROR" in (machine.root / LOG).read_text(), "a line in the new log file")
    assert machine.run("stat", "-c", "%U:%G", f"/{LOG}").strip() == "tavlo:tavlo"


def asked(machine):
    return (machine.root / "run/asked").read_text().splitlines()


def actions(machine):
    return re.findall(r"\b(start|restart|stop) (?:tavlo\.path )?tavlo\.service$", "\n".join(asked(machine)),
                      re.M)


def check_left_after_purge(machine):
    """Nothing but the administrator's own script: what else has changed does not have the name."""
    changed = {path.relative_to(machine.upper) for path in machine.upper.rglob("*")
               if not path.is_char_device()}  # one of these stands for a file that was taken away
    own = Path("etc/tavlo/hooks/agent/10-ends-changes")
    assert {path for path in changed if "tavlo" in str(path)} == {own, *own.parents[:-2]}
    for name in WANTED:
        assert not os.path.lexists(machine.root / name)
    # Triggers of other packages, such as that of the manual pages, were left out on purpose.
    assert "tavlo" not in machine.run("dpkg", "--audit")


def test_a_life_from_installation_to_purge(machine, package, tmp_path):
    set_up_systemctl(machine)
    machine.install(package)
    check_installed(machine)
    assert actions(machine) == ["start"]
    log = SystemLog(machine)
    daemon = machine.start()
    check_findings(machine)
    check_at_work(machine)
    check_system_log(machine, log)
    check_rotation(machine)
    assert (machine.root / LOG).stat().st_mode & 0o777 == 0o640

    configuration = machine.root / CONFIGURATION
    edited = configuration.read_text().replace('"br0"', '"lan0"')
    configuration.write_text(edited)
    kept = machine.root / "var/lib/tavlo/router_info"
    kept.write_text("pairing_key: opensesame\n")
    machine.install(next_version(package, tmp_path / "next"))
    assert actions(machine) == ["start", "restart"]
    assert configuration.read_text() == edited and kept.exists()
    stop(machine, daemon)
    daemon = machine.start()
    check_at_work(machine)
    stop(machine, daemon)

    machine.run("dpkg", "--no-triggers", "--remove", "tavlo")
    assert actions(machine) == ["start", "restart", "stop"]
    assert not (machine.root / "usr/sbin/tavlo").exists()
    assert configuration.read_text() == edited and kept.exists()
    machine.run("dpkg", "--no-triggers", "--purge", "tavlo")
    check_left_after_purge(machine)


def test_the_debug_package_wants_the_very_same_version(machine, package, debug_package, tmp_path):
    machine.install(next_version(package, tmp_path / "next"))
    with pytest.raises(AssertionError, match="tavlo-dbg depends on tavlo"):
        machine.install(debug_package)
    machine.install(package)
    machine.install(debug_package)


def test_a_crash_is_decoded_as_documented(machine, package, debug_package):
    machine.install(package)
    machine.install(debug_package)
    daemon = machine.start()
    machine.run("pkill", "-SEGV", "-x", "tavlo")
    daemon.wait(20)
    text = (SOURCE / "docs/install.md").read_text()
    [command] = re.findall(r"^    (decode-backtrace .*)$", text, re.M)
    assert re.search(r"^    Run\(\) at \S*src/app/run_loop\.cc:\d+$", machine.run("sh", "-c", command), re.M)


def test_it_starts_without_systemd_as_documented(machine, package):
    machine.install(package)
    text = (SOURCE / "docs/install.md").read_text()
    *preparations, start = re.findall(r"^    ((?:install|setpriv) [^#\n]+)", text, re.M)
    assert len(preparations) == 2
    assert start.startswith("setpriv")
    for command in preparations:
        machine.run("sh", "-c", command)
    # From a process that has more groups than it should hand down.
    daemon = machine.start_command(f"exec setpriv --groups=0,1 {start}")
    check_at_work(machine)
    set_up_systemctl(machine)
    check_rotation(machine)
    stop(machine, daemon)
