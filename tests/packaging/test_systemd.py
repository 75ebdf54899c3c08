"""The systemd unit, as systemd's own tool sees it."""

import re
import subprocess

import pytest
from conftest import SOURCE

UNITS = "lib/systemd/system"


@pytest.fixture(name="prefix")
def prefix_of_an_installation(installation, tmp_path):
    """Where everything that a unit names is really there."""
    installation.run(PREFIX=str(tmp_path / "prefix"), DESTDIR="")
    return tmp_path / "prefix"


@pytest.fixture(name="unit")
def installed_unit(prefix):
    return prefix / UNITS / "tavlo.service"


def values(unit, setting):
    return re.findall(rf"^{setting}=(.*)$", unit.read_text(), re.M)


def analyze(*arguments):
    return subprocess.run(["systemd-analyze", *arguments], check=False, capture_output=True,
                          text=True, env={"PATH": "/usr/bin:/bin", "LC_ALL": "C"})


@pytest.mark.parametrize("name", ["tavlo.service", "tavlo.path"])
def test_systemd_has_nothing_to_say_against_it(prefix, name):
    # The manual pages are not where `man` looks for them.
    result = analyze("verify", "--man=no", prefix / UNITS / name)
    assert (result.returncode, result.stdout, result.stderr) == (0, "", "")


def test_it_is_not_started_before_certificate_and_key_are_there(prefix, unit):
    agent = prefix / "etc/tavlo/agent"
    conditions = [f"ConditionFileNotEmpty={path}" for path in values(unit, "ConditionFileNotEmpty")]
    assert conditions == [f"ConditionFileNotEmpty={agent / name}" for name in ("mirel.crt", "mirel.key")]

    def may_start():
        return analyze("condition", *conditions).returncode == 0

    assert not may_start()
    (agent / "mirel.crt").write_text("certificate")
    assert not may_start()
    (agent / "mirel.key").touch()
    assert not may_start()
    (agent / "mirel.key").write_text("key")
    assert may_start()


def test_the_path_unit_starts_it_when_they_come(prefix):
    path_unit = prefix / UNITS / "tavlo.path"
    # What is there already would be looked at again and again while the other file is missing.
    assert values(path_unit, r"Path\w+") == [str(prefix / "etc/tavlo/agent")]
    assert values(path_unit, "PathChanged") == [str(prefix / "etc/tavlo/agent")]
    assert values(path_unit, "Unit") == []  # the service of the same name
    assert values(path_unit, "WantedBy") == ["paths.target"]


def test_the_configuration_is_looked_at_before_each_start_and_does_not_prevent_it(prefix, unit):
    assert values(unit, "ExecStartPre") == [
        f"-{prefix}/sbin/tavloctl check -c {prefix}/etc/tavlo/tavlo.json -f /var/log/tavlo/tavlo.log"]
    assert values(unit, "SyslogLevel") == ["notice"]


def test_each_line_is_in_the_journal_once(unit):
    """With the priority that the daemon tells: test_debian.py looks at what it sends."""
    assert "-s" in values(unit, "ExecStart")[0].split()
    assert values(unit, "StandardError") == ["null"]


def test_it_is_started_again_whatever_its_exit_status_was(unit):
    lines = unit.read_text().splitlines()
    restart_secs = int(next(line for line in lines if line.startswith("RestartSec=")).split("=")[1])
    interval = int(next(line for line in lines if line.startswith("StartLimitInterval")).split("=")[1])
    burst = int(next(line for line in lines if line.startswith("StartLimitBurst=")).split("=")[1])
    assert "Restart=always" in lines
    # Else the limit would never be reached.
    assert restart_secs * burst < interval


def test_the_documented_drop_in_starts_the_same_with_all_lines(installation):
    installation.run(PREFIX="/usr")
    unit = (installation.root / "usr/lib/systemd/system/tavlo.service").read_text()
    [started] = re.findall(r"^ExecStart=(.+)$", unit, re.M)
    page = (SOURCE / "docs/install.md").read_text()
    assert re.findall(r"^ExecStart=(.*)$", page, re.M) == ["", started.replace(" -s ", " -d -s ")]


def test_the_documented_exposure_is_the_real_one(unit):
    report = analyze("security", "--offline=yes", "--no-pager", unit).stdout
    level = re.search(r"exposure level for tavlo.service: ([0-9.]+)", report)[1]
    assert f"exposure level of {level}" in (SOURCE / "docs/install.md").read_text()


def test_it_says_what_to_open_for_hooks(unit):
    """Each fence that a script may run into comes with the line that opens it."""
    comments = " ".join(line.lstrip("# ") for line in unit.read_text().splitlines()
                        if line.startswith("#"))
    for setting in ("ReadWritePaths=", "PrivateDevices=no", "ProtectProc=default", "User=root",
                    "ProtectKernelTunables=no", "NoNewPrivileges=no", "CAP_NET_ADMIN",
                    "PrivateUsers=no", "AF_INET6", "MemoryDenyWriteExecute=no", "PrivateTmp=no"):
        assert setting in comments
