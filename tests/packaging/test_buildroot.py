"""The external tree for Buildroot: its makefiles with a stand-in of Buildroot's infrastructure, its
files by the rules of Buildroot's own checker, and its init script at work, with BusyBox's programs."""

import getpass
import hashlib
import json
import os
import re
import shutil
import signal
import socket
import subprocess
from pathlib import Path

import pytest
from conftest import BUILD, SOURCE, assert_daemon_reads_as_written, listing, wait_for
from support.ports import reserve_port

TREE = SOURCE / "packaging/buildroot"
PACKAGE = TREE / "package/tavlo"
SCRIPT = PACKAGE / "S99tavlo"

# As Buildroot reads an external tree: what the infrastructure sets comes first, and its targets last.
# In a recipe $(@D) is the directory that the package is built in: its target is a stamp in there.
BUILDROOT = r"""
BR2_EXTERNAL_TAVLO_PATH = %(tree)s
TARGET_DIR = %(root)s
TARGET_CROSS = router-
TARGET_OBJCOPY = $(TARGET_CROSS)objcopy
INSTALL = install
TAVLO_PKGDIR = $(BR2_EXTERNAL_TAVLO_PATH)/package/tavlo
cmake-package = $(info built with CMake)
all:
-include $(BR2_EXTERNAL_TAVLO_PATH)/external.mk
show-%%:
	@echo '$($*)'
install: %(build)s/.stamp
%(build)s/.stamp:
	$(TAVLO_INSTALL_TARGET_CMDS)
	$(TAVLO_INSTALL_INIT_SYSV)
users:
	$(info $(TAVLO_USERS))@:
"""


@pytest.fixture(name="make")
def buildroot(tmp_path):
    (tmp_path / "build").mkdir()
    for name in ("tavlo", "tavloctl"):
        (tmp_path / "build" / name).write_text(name)
    (tmp_path / "Makefile").write_text(BUILDROOT % {
        "tree": TREE, "root": tmp_path / "root", "build": tmp_path / "build"})

    def run(*arguments):
        return subprocess.run(["make", "-s", "-C", tmp_path, *arguments], check=True,
                              capture_output=True, text=True, umask=0o022).stdout
    return run


def test_it_is_a_cmake_package_of_the_builds_version(make):
    cache = (BUILD / "CMakeCache.txt").read_text()
    version = cache.split("CMAKE_PROJECT_VERSION:STATIC=")[1].split()[0]
    assert make("show-TAVLO_VERSION") == f"built with CMake\n{version}\n"
    assert make("show-TAVLO_CONF_OPTS").split()[3:] == [
        "-DBUILD_TESTING=OFF", "-DCMAKE_OBJCOPY=router-objcopy", "-DCMAKE_STRIP=router-strip"]


def test_it_is_built_from_this_tree_without_what_was_built_before(make, tmp_path):
    site = make("show-TAVLO_SITE").splitlines()[1]
    assert Path(site) == SOURCE
    exclusions = make("show-TAVLO_OVERRIDE_SRCDIR_RSYNC_EXCLUSIONS").splitlines()[1]
    assert exclusions == "--exclude=/build"


def test_all_that_cmake_looks_for_is_built_before(make):
    lists = (SOURCE / "CMakeLists.txt").read_text()
    packages = {"OpenSSL": "openssl", "PkgConfig": "host-pkgconf", "ZLIB": "zlib", "LIBEVENT": "libevent",
                "JSON_C": "json-c", "RAPIDJSON_INCLUDE_DIR": "rapidjson"}
    wanted = re.findall(r"(?:find_package|pkg_check_modules|find_path)\((\w+)", lists)
    assert set(wanted) == {*packages, "Threads"}
    assert sorted(make("show-TAVLO_DEPENDENCIES").split()[3:]) == sorted(packages.values())


def test_the_package_holds_these_files(make, tmp_path):
    make("install")
    assert listing(tmp_path / "root") == {
        "/usr/sbin/tavlo": "-rwxr-xr-x",
        "/etc/init.d/S99tavlo": "-rwxr-xr-x",
        "/etc/tavlo/tavlo.json": "-rw-r--r--",
        "/etc/tavlo/agent": "drwxr-xr-x",
        "/etc/tavlo/hooks/agent": "drwxr-xr-x",
    }


def test_the_utilities_come_when_they_are_chosen(make, tmp_path):
    make("install", "BR2_PACKAGE_TAVLO_UTILS=y")
    assert listing(tmp_path / "root")["/usr/sbin/tavloctl"] == "-rwxr-xr-x"


def test_the_user_of_the_configuration_is_made(make):
    user, uid, group, gid, password, home, shell, groups, comment = make("users").split("\n")[1].split()
    assert (user, group) == (json.loads((PACKAGE / "tavlo.json").read_text())["agentUser"],) * 2
    assert (uid, gid, password, home, shell, groups) == ("-1", "-1", "*", "-", "-", "-")
    assert comment


def test_the_licence_files_are_there_with_their_hashes(make):
    rows = [line.split("  ") for line in (PACKAGE / "tavlo.hash").read_text().splitlines()
            if not line.startswith("#")]
    assert [name for _, _, name in rows] == make("show-TAVLO_LICENSE_FILES").split()[3:]
    for kind, digest, name in rows:
        assert kind == "sha256"
        assert hashlib.sha256((SOURCE / name).read_bytes()).hexdigest() == digest


def test_the_daemon_reads_its_configuration_as_it_is_written():
    assert_daemon_reads_as_written(PACKAGE / "tavlo.json")


# The rules for files, as Buildroot's manual and its checker have them.

def lines(path):
    return path.read_text(encoding="ascii").splitlines()


@pytest.mark.parametrize("path", sorted(path for path in TREE.rglob("*") if path.is_file()),
                         ids=lambda path: path.name)
def test_a_file_is_in_good_order(path):
    text = path.read_text(encoding="ascii")
    assert text.endswith("\n") and not text.endswith("\n\n") and "\n\n\n" not in text
    assert not re.search(r"[ \t]$", text, re.M)
    assert not os.access(path, os.X_OK)  # the makefile gives the mode


def test_the_makefile_has_a_header_and_names_of_its_own():
    makefile = lines(PACKAGE / "tavlo.mk")
    assert makefile[:6] == ["#" * 80, "#", "# tavlo", "#", "#" * 80, ""]
    names = re.findall(r"^(?:define )?([A-Z0-9_]+)", "\n".join(makefile), re.M)
    assert names and all(name.startswith("TAVLO_") for name in names)
    assert len(names) == len(set(names))
    assert not any("${" in line for line in makefile)


def test_the_makefile_is_indented_by_tabs():
    within = False
    for before, line in zip(["", *lines(PACKAGE / "tavlo.mk")], lines(PACKAGE / "tavlo.mk")):
        if line.startswith(("define ", "endef")):
            within = line.startswith("define ")
        else:
            expected = bool(line) and (within or before.endswith("\\"))
            assert line.startswith("\t") == expected, line
        assert not re.search(r"(  |\t)\\$", line), line


def entries():
    """The options of Config.in by name, each with its attributes in order and its help text."""
    text = (PACKAGE / "Config.in").read_text(encoding="ascii")
    found = {}
    for name, body in re.findall(r"^config (\w+)\n((?:\t.*\n|\n(?=\t))*)", text, re.M):
        attributes, _, help_text = body.partition("\thelp\n")
        found[name] = [line[1:] for line in attributes.splitlines()], help_text.splitlines()
    return found


def test_the_options_are_written_as_buildroot_wants_them():
    order = ["bool", "default", "depends", "select"]
    for attributes, help_text in entries().values():
        kinds = [line.split()[0] for line in attributes]
        assert kinds == sorted(kinds, key=order.index) and kinds[0] == "bool"
        assert help_text
        for line in filter(None, help_text):
            assert re.fullmatch(r"\t  \S.{,61}", line), line


def test_what_it_depends_on_is_chosen_with_it(make):
    attributes, _ = entries()["BR2_PACKAGE_TAVLO"]
    chosen = {line.split()[1] for line in attributes if line.startswith("select")}
    for package in make("show-TAVLO_DEPENDENCIES").split()[3:]:
        if not package.startswith("host-"):
            assert f"BR2_PACKAGE_{package.upper().replace('-', '_')}" in chosen


def test_who_lacks_something_of_the_toolchain_is_told_what():
    attributes, _ = entries()["BR2_PACKAGE_TAVLO"]
    needed = {word for line in attributes if line.startswith("depends")
              for word in re.findall(r"!?BR2_\w+", line)}
    comment = (PACKAGE / "Config.in").read_text().partition("\ncomment ")[2]
    told = set(re.findall(r"!?BR2_\w+", comment))
    both = {"BR2_USE_MMU", "BR2_TOOLCHAIN_HAS_SYNC_4"}  # what no other toolchain would mend
    opposite = {name[1:] if name.startswith("!") else f"!{name}" for name in needed - both}
    assert told == opposite | both


# The init script.

class Router:
    """The script with directories and programs of a test's own."""

    def __init__(self, directory, shell):
        self.directory = directory
        self.pid_file = directory / "tavlo.pid"
        self.configuration = directory / "tavlo.json"
        self.log = directory / "log"
        self.settings = json.loads((PACKAGE / "tavlo.json").read_text()) | {
            "agentUser": getpass.getuser(), "agentDstPort": reserve_port(),
            "agentDataPath": str(directory / "run/request-body"),
            "rootPrefix": str(directory / "crash"),
            "agentHttpPort": reserve_port(), "agentHttpsPort": reserve_port()}
        programs = directory / "programs"
        programs.mkdir()
        (programs / "start-stop-daemon").symlink_to(shutil.which("busybox"))
        defaults = directory / "defaults"
        defaults.write_text(f"PROGRAM={BUILD}/tavlo\nCONTROL=\nCONFIG={self.configuration}\n"
                            f"TAVLO_ARGS='-d -f {self.log}'\nPAUSE_SECS=0\n")
        self.script = directory / "S99tavlo"
        text = SCRIPT.read_text().replace("/etc/default/$DAEMON", str(defaults))
        text = text.replace('PIDFILE="/var/run/$DAEMON.pid"', f"PIDFILE={self.pid_file}")
        self.script.write_text(text.replace("-x /bin/sh -- \"$0\"", f"-x {shell[0]} -- {' '.join(shell[1:])} $0"))
        self.shell = shell
        self.environment = {"PATH": f"{programs}:/usr/sbin:/usr/bin:/sbin:/bin"}

    def call(self, action):
        self.configuration.write_text(json.dumps(self.settings))
        return subprocess.run([*self.shell, self.script, action], check=False, capture_output=True,
                              text=True, env=self.environment, stdin=subprocess.DEVNULL, timeout=30)

    def loop(self):
        return int(self.pid_file.read_text())

    def daemons(self):
        children = Path(f"/proc/{self.loop()}/task/{self.loop()}/children").read_text().split()
        return [int(pid) for pid in children
                if os.path.basename(os.readlink(f"/proc/{pid}/exe")) == "tavlo"]

    def lines(self, text):
        return self.log.read_text().count(text) if self.log.exists() else 0

    def wait_for_start(self, count=1):
        wait_for(lambda: self.lines("tavlo started") == count, f"start {count}")
        return self.daemons()[0]


@pytest.fixture(name="router", params=[["/usr/bin/dash"], ["/usr/bin/busybox", "sh"]],
                ids=["dash", "busybox"])
def router_with_a_shell(request, tmp_path):
    router = Router(tmp_path, request.param)
    yield router
    if router.pid_file.exists():
        router.call("stop")


def is_there(pid):
    return Path(f"/proc/{pid}").exists()


def test_it_starts_the_daemon_and_stops_it(router):
    started = router.call("start")
    assert (started.returncode, started.stdout, started.stderr) == (0, "Starting tavlo: OK\n", "")
    loop, daemon = router.loop(), router.wait_for_start()
    stopped = router.call("stop")
    assert (stopped.returncode, stopped.stdout) == (0, "Stopping tavlo: OK\n")
    assert not is_there(loop) and not is_there(daemon)
    assert not router.pid_file.exists()


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGSEGV], ids=lambda number: number.name)
def test_a_daemon_that_ends_is_started_again(router, number):
    router.call("start")
    for count in (1, 2):
        os.kill(router.wait_for_start(count), number)
    router.wait_for_start(3)
    assert router.call("stop").returncode == 0


def test_a_reload_is_a_sighup_to_the_daemon(router):
    router.call("start")
    daemon = router.wait_for_start()
    assert router.call("reload").returncode == 0
    wait_for(lambda: router.lines("void Run: HUP") == 1, "the daemon's answer")
    assert router.daemons() == [daemon]
    assert router.call("stop").returncode == 0


def test_a_restart_takes_the_configuration_anew(router):
    router.call("start")
    router.wait_for_start()
    router.settings["agentHttpPort"] = reserve_port()
    assert router.call("restart").stdout == "Stopping tavlo: OK\nStarting tavlo: OK\n"
    router.wait_for_start(2)
    with socket.create_connection(("127.0.0.1", router.settings["agentHttpPort"])):
        pass
    assert router.call("stop").returncode == 0


def test_a_second_start_is_refused(router):
    router.call("start")
    router.wait_for_start()
    assert router.call("start").returncode != 0
    assert router.lines("tavlo started") == 1
    assert router.call("stop").returncode == 0


def test_a_stop_of_nothing_fails(router):
    stopped = router.call("stop")
    assert (stopped.returncode, stopped.stdout) == (1, "Stopping tavlo: FAIL\n")


def test_it_is_not_started_with_a_configuration_that_cannot_be_read(router):
    with open(router.directory / "defaults", "a", encoding="ascii") as defaults:
        defaults.write(f"CONFIG={router.directory}/none\n")
    started = router.call("start")
    assert started.returncode == 1
    assert "FAIL" in started.stdout and not router.pid_file.exists()


def test_a_daemon_that_does_not_stop_is_killed(router):
    program = router.directory / "program"
    program.write_text(f"#!/bin/sh\n[ \"$3\" != -p ] || exec {BUILD}/tavlo \"$@\"\n"
                       f"trap '' TERM\necho tavlo started >>{router.log}\nwhile :; do sleep 1; done\n")
    program.chmod(0o755)
    with open(router.directory / "defaults", "a", encoding="ascii") as defaults:
        defaults.write(f"PROGRAM={program}\nSTOP_SECS=1\n")
    router.call("start")
    wait_for(lambda: router.lines("tavlo started") == 1, "its start")
    loop = router.loop()
    assert router.call("stop").returncode == 0
    assert not is_there(loop)


@pytest.mark.parametrize("body", ["/tavlo-body", "tavlo-body"])
def test_a_body_file_without_a_directory_of_its_own_is_no_hindrance(router, body):
    router.settings["agentDataPath"] = body
    assert router.call("start").returncode == 0
    router.wait_for_start()
    assert router.call("stop").returncode == 0


def test_it_makes_the_directories_and_leaves_those_that_are_there(router):
    there = router.directory / "run"
    there.mkdir(mode=0o755)
    router.call("start")
    router.wait_for_start()
    made = router.directory / "crash/tmp"
    assert made.owner() == getpass.getuser() and made.stat().st_mode & 0o777 == 0o750
    assert there.stat().st_mode & 0o777 == 0o755
    assert router.call("stop").returncode == 0
