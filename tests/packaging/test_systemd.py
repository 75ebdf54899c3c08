"""The systemd unit, as systemd's own tool sees it."""

import re
import subprocess

import pytest
from conftest import SOURCE


@pytest.fixture(name="unit")
def installed_unit(installation, tmp_path):
    """The unit, installed with a program that is really there."""
    installation.run(PREFIX=str(tmp_path / "prefix"), DESTDIR="")
    return tmp_path / "prefix/lib/systemd/system/tavlo.service"


def analyze(*arguments):
    return subprocess.run(["systemd-analyze", *arguments], check=False, capture_output=True,
                          text=True, env={"PATH": "/usr/bin:/bin", "LC_ALL": "C"})


def test_systemd_has_nothing_to_say_against_it(unit):
    # The manual pages are not where `man` looks for them.
    result = analyze("verify", "--man=no", unit)
    assert (result.returncode, result.stdout, result.stderr) == (0, "", "")


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
    assert re.findall(r"^ExecStart=(.*)$", page, re.M) == ["", started.replace(" -c ", " -d -c ")]


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
