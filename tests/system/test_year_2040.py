"""A router that runs past 2038, where seconds of 32 bits end: the daemon and tavloctl with a clock of
2040. Under an emulator that is the emulator's clock, which is what its programs have for a kernel's."""

import calendar
import time
from pathlib import Path

import pytest

from support import certificates
from support.clients import ask
from support.scratch_root import PAIRING_KEY
from support.tavloctl import check, run_tavloctl
from support.waiting import SANITIZER, wait_until

FAKE_TIME = next(Path("/usr/lib").glob("*/faketime/libfaketimeMT.so.1"), None)
# The day of the tests. It is the same number of seconds ahead for all of a run: what one program of 2040 has
# made must not be of the next one's future.
AHEAD = calendar.timegm((2040, 5, 17, 12, 0, 0)) - int(time.time())
KEY = {"PairingKey": PAIRING_KEY}

pytestmark = pytest.mark.skipif(
    FAKE_TIME is None or SANITIZER != "",
    reason="needs libfaketime, and a build that it can be preloaded into")


def clock():
    """What starts a program then. Without NO_FAKE_STAT all files would be of then too."""
    return ["env", f"LD_PRELOAD={FAKE_TIME}", f"FAKETIME=+{AHEAD}s", "FAKETIME_DONT_FAKE_MONOTONIC=1",
            "FAKETIME_FORCE_MONOTONIC_FIX=0", "NO_FAKE_STAT=1", "QEMU_UNSET_ENV=LD_PRELOAD"]


@pytest.fixture(name="daemon")
def daemon_of_2040(root, make_daemon, sdk_host):
    root.settings["agentDataPath"] = str(root.agent_data)
    root.write_hook(root.internal_hooks, "10-pass", "#!/bin/sh\nexit 0\n")
    return make_daemon(prefix=clock()).start()


def test_it_serves_and_its_log_says_the_year(root, daemon):
    for _ in range(2):
        assert ask(root.http_port, "GET", "/api/version").status == 200
        assert ask(root.https_port, "GET", "/api/x", headers=KEY, tls=True).status == 200
    daemon.wait_for_log("Running subprocess timeout thread for PID", count=4)
    daemon.stop()
    years = {line[:5] for line in daemon.log_text().splitlines()}
    assert years == {"2040-"}
    assert daemon.count_in_log(" ERROR: (?!void UpdateLanAddress)") == 0


def test_a_crash_record_has_the_date(root, daemon):
    daemon.crash()
    record = (root.directory / "tmp" / "tavlo-backtrace.log").read_text()
    assert record.startswith("(2040-05-17 ")


def test_tavloctl_knows_which_certificate_has_expired(root):
    assert [what for _, what, _ in check(root)[0]] == []
    [(_, what, _)] = [found for found in check(root, prefix=clock())[0] if found[0].endswith(".crt")]
    assert "has expired" in what


def test_tavloctl_takes_a_certificate_that_holds_in_2040(root):
    certificates.make_pair(root.certificate, root.key, clock=clock())
    assert [where for where, _, _ in check(root, prefix=clock())[0]] == []
    [(_, what, _)] = [found for found in check(root)[0] if found[0].endswith(".crt")]
    assert "is not valid before May 17 " in what


def test_tavloctl_reads_a_log_of_the_last_hour(root, daemon):
    assert ask(root.http_port, "GET", "/api/version").status == 200
    wait_until(lambda: "Answered" in daemon.log_text(), "the line of the answer")
    daemon.stop()
    result = run_tavloctl("log", "--since", "1h", "--json", daemon.log, prefix=clock())
    assert (result.returncode, result.stderr) == (0, "")
    assert result.stdout == run_tavloctl("log", "--json", daemon.log).stdout
