"""The OpenWrt package: its Makefile with stand-ins of the build system's, and its init script with
stand-ins of procd's functions and of the configuration's."""

import getpass
import json
import shutil
import signal
import subprocess

import pytest
from conftest import BUILD, SOURCE, assert_daemon_reads_as_written, listing, wait_for
from support.ports import reserve_port

PACKAGE = SOURCE / "packaging/openwrt/tavlo"
# What rc.common gives an init script. Each call of procd's functions is a line of the record.
RC_COMMON = r"""
config_load() { [ "$1" = tavlo ]; }
config_get() { eval "$1=\${UCI_$3:-\$4}"; }
config_get_bool() { config_get "$@"; }
for name in open_instance close_instance set_param append_param send_signal open_trigger \
    close_trigger add_config_trigger; do
  eval "procd_$name() { echo \"$name \$*\" >>\"\$RECORD\"; }"
done
logger() {
  echo "logger $*" >>"$RECORD"
  [ "$1" = -s ] || sed "s/^/logged /" >>"$RECORD"
}
. "$INIT_SCRIPT"
PROG=$PROGRAM
CONTROL=$CONTROL_PROGRAM
"$@"
"""


class Router:
    def __init__(self, directory, shell):
        self.directory = directory
        self.shell = shell
        self.record = directory / "record"
        self.control = directory / "tavloctl"
        self.configuration = directory / "tavlo.json"
        self.settings = json.loads((PACKAGE / "files/tavlo.json").read_text()) | {
            "agentUser": getpass.getuser(),
            "agentDataPath": str(directory / "run/request-body"),
            "rootPrefix": str(directory / "crash"),
            "agentHttpPort": reserve_port(), "agentHttpsPort": reserve_port()}

    def call(self, function, **uci):
        """Calls a function of the script; returns its exit status and what it asked of procd."""
        self.configuration.write_text(json.dumps(self.settings))
        self.record.write_text("")
        environment = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "RECORD": self.record,
                       "INIT_SCRIPT": PACKAGE / "files/tavlo.init", "PROGRAM": BUILD / "tavlo",
                       "CONTROL_PROGRAM": self.control,
                       "UCI_config": self.configuration}
        environment |= {f"UCI_{name}": value for name, value in uci.items()}
        result = subprocess.run([*self.shell, "-c", RC_COMMON, "rc.common", function], check=False,
                                env=environment, stdin=subprocess.DEVNULL)
        return result.returncode, self.record.read_text().splitlines()


@pytest.fixture(name="router", params=[["dash"], ["busybox", "sh"]], ids=["dash", "busybox"])
def router_with_a_shell(request, tmp_path):
    return Router(tmp_path, request.param)


def test_procd_starts_it_again_for_ever(router):
    status, asked = router.call("start_service")
    assert status == 0
    # Threshold, seconds until the next start, retries: 0 is without end. procd asks for no status.
    assert asked == [
        "open_instance ",
        f"set_param command {BUILD}/tavlo -s -c {router.configuration}",
        "set_param respawn 3600 5 0",
        "close_instance "]


def test_what_would_not_work_is_logged_and_keeps_nothing_from_being_started(router):
    router.control.write_text("#!/bin/sh\necho \"$*\"; echo wrong >&2; exit 1\n")
    router.control.chmod(0o755)
    status, asked = router.call("start_service")
    assert (status, asked[:3]) == (0, [
        "logger -t tavlo -p daemon.notice", f"logged check -c {router.configuration}",
        "logged wrong"])
    assert "close_instance " in asked


def test_it_is_tavloctl_that_is_asked(router):
    router.control.symlink_to(BUILD / "tavloctl")
    router.settings["agentHttpPort"] = "60278"  # a number in quotes
    status, asked = router.call("start_service")
    assert status == 0 and "close_instance " in asked
    assert any("agentHttpPort" in line for line in asked if line.startswith("logged "))


def test_the_section_can_ask_for_debug_lines(router):
    assert "append_param command -d" in router.call("start_service", debug="1")[1]


def test_the_section_can_switch_it_off(router):
    assert router.call("start_service", enabled="0") == (0, [])


def test_it_is_not_started_with_a_configuration_that_cannot_be_read(router):
    status, asked = router.call("start_service", config=str(router.directory / "none"))
    assert status == 1
    assert len(asked) == 1 and asked[0].startswith("logger ")


def test_a_reload_is_a_sighup(router):
    assert router.call("reload_service") == (0, ["send_signal tavlo * HUP"])


def test_a_changed_section_restarts_it(router):
    assert router.call("service_triggers")[1] == [
        "open_trigger ", "add_config_trigger config.change tavlo /etc/init.d/tavlo restart",
        "close_trigger "]


def test_it_makes_the_directories_and_leaves_those_that_are_there(router):
    there = router.directory / "run"
    there.mkdir(mode=0o755)
    assert router.call("start_service")[0] == 0
    made = router.directory / "crash/tmp"
    assert made.owner() == getpass.getuser() and made.stat().st_mode & 0o777 == 0o750
    assert there.stat().st_mode & 0o777 == 0o755


@pytest.mark.parametrize("body", ["/tavlo-body", "tavlo-body"])
def test_a_body_file_without_a_directory_of_its_own_is_no_hindrance(router, body):
    router.settings["agentDataPath"] = body
    status, asked = router.call("start_service")
    assert status == 0
    assert "close_instance " in asked


def test_the_daemon_runs_with_what_procd_was_told(router):
    command = next(line for line in router.call("start_service")[1] if "command" in line).split()[2:]
    lines = router.directory / "console"
    with lines.open("w") as console, \
            subprocess.Popen(command, stdout=console, stderr=console) as daemon:
        try:
            wait_for(lambda: "tavlo started" in lines.read_text(), "tavlo started")
            daemon.send_signal(signal.SIGTERM)
            assert daemon.wait(20) == 0
        finally:
            daemon.kill()


RULES = """
INCLUDE_DIR:=$(TOPDIR)/include
PKG_BUILD_DIR:=$(TOPDIR)/build_dir
TARGET_CROSS:=router-
STRIP:=echo
RSTRIP:=echo
INSTALL_DIR:=install -d -m0755
INSTALL_BIN:=install -m0755
INSTALL_DATA:=install -m0644
INSTALL_CONF:=install -m0600
"""
PACKAGE_RULES = """
prepare:
	$(call Build/Prepare)
show:
	@echo $(PKG_NAME) $(PKG_VERSION) $(CMAKE_OPTIONS)
license:
	@echo $(PKG_LICENSE) $(PKG_LICENSE_FILES)
strip:
	@$(RSTRIP) strips && $(STRIP) strips
define BuildPackage
install-$(1):
	$$(call Package/$(1)/install,$(TOPDIR)/root)
conffiles-$(1):
	$$(info $$(Package/$(1)/conffiles)) @:
endef
"""


@pytest.fixture(name="make")
def build_system(tmp_path):
    (tmp_path / "include").mkdir()
    (tmp_path / "rules.mk").write_text(RULES)
    (tmp_path / "include/package.mk").write_text(PACKAGE_RULES)
    (tmp_path / "include/cmake.mk").touch()

    def run(target):
        return subprocess.run(["make", "-s", "-C", PACKAGE, target, f"TOPDIR={tmp_path}"],
                              check=True, capture_output=True, text=True, umask=0o022).stdout
    return run


def test_its_version_is_the_builds(make):
    cache = (BUILD / "CMakeCache.txt").read_text()
    version = cache.split("CMAKE_PROJECT_VERSION:STATIC=")[1].split()[0]
    assert make("show").split() == [
        "tavlo", version, "-DBUILD_TESTING=OFF", "-DCMAKE_OBJCOPY=router-objcopy",
        "-DCMAKE_STRIP=router-strip"]


def test_its_licence_is_what_the_source_gives(make):
    name, path = make("license").split()
    assert name == "NONE"
    assert "The source gives no licence." in (SOURCE / path).read_text()


@pytest.fixture(name="built")
def what_a_build_leaves(tmp_path):
    (tmp_path / "build_dir/tools").mkdir(parents=True)
    for name in ("tavlo", "tavlo.cdx.json", "tavloctl", "tavloctl.cdx.json"):
        (tmp_path / "build_dir" / name).write_text(name)
    shutil.copy(SOURCE / "tools/decode-backtrace", tmp_path / "build_dir/tools")


@pytest.mark.usefixtures("built")
def test_the_package_holds_these_files(make, tmp_path):
    make("install-tavlo")
    assert listing(tmp_path / "root") == {
        "/usr/sbin/tavlo": "-rwxr-xr-x",
        "/usr/share/doc/tavlo/tavlo.cdx.json": "-rw-r--r--",
        "/etc/init.d/tavlo": "-rwxr-xr-x",
        "/etc/config/tavlo": "-rw-------",
        "/etc/tavlo/tavlo.json": "-rw-r--r--",
        "/etc/tavlo/agent": "drwxr-xr-x",
        "/etc/tavlo/hooks/agent": "drwxr-xr-x",
    }
    assert make("conffiles-tavlo").split() == ["/etc/config/tavlo", "/etc/tavlo/"]


@pytest.mark.usefixtures("built")
def test_the_package_of_the_tools_holds_these_files(make, tmp_path):
    make("install-tavlo-utils")
    assert listing(tmp_path / "root") == {
        "/usr/sbin/tavloctl": "-rwxr-xr-x",
        "/usr/bin/decode-backtrace": "-rwxr-xr-x",
        "/usr/share/doc/tavlo/tavloctl.cdx.json": "-rw-r--r--",
    }
    assert make("conffiles-tavlo-utils").split() == []


def test_nothing_strips_what_the_bills_of_materials_have_the_hash_of(make):
    assert make("strip") == ""


def test_it_is_built_from_this_tree_without_what_was_built_before(make, tmp_path):
    make("prepare")
    copy = tmp_path / "build_dir"
    assert (copy / "CMakeLists.txt").exists() and (copy / "src/app/main.cc").exists()
    assert not (copy / "build").exists() and not (copy / ".git").exists()


def test_the_daemon_reads_its_configuration_as_it_is_written():
    assert_daemon_reads_as_written(PACKAGE / "files/tavlo.json")
