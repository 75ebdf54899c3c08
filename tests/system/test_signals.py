"""Stopping it, and what SIGHUP does."""

import os
import shutil
import signal
import subprocess
from pathlib import Path

import pytest

from support.clients import ask, connect
from support.destinations import Destination, hang
from support.scratch_root import PAIRING_KEY
from support.waiting import EMULATOR, SANITIZER

GOT_SIGNAL = "DEBUG: void Run: Got signal {}, from pid {}$"


def hang_up(daemon, since, path=None, count=1):
    """Sends SIGHUP and waits until it has been seen."""
    daemon.send_signal(signal.SIGHUP)
    daemon.wait_for_log("DEBUG: void Run: HUP$", since=since, path=path, count=count)


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
def test_a_stop_signal_ends_it_with_status_0(daemon, number):
    daemon.send_signal(number)
    assert daemon.wait_for_exit() == 0
    lines = daemon.log_text().splitlines()
    assert lines[-2].endswith(
        f"INFO: void Run: Exit by signal {int(number)}, from pid {os.getpid()}")
    assert lines[-1].endswith("DEBUG: void Run: Leave")


@pytest.mark.skipif(SANITIZER != "" or EMULATOR != "" or shutil.which("cc") is None,
                    reason="needs cc, and a daemon whose C library can be replaced in part")
def test_the_log_is_closed_just_before_the_end(make_daemon, tmp_path):
    library = tmp_path / "last_calls.so"
    source = Path(__file__).with_name("last_calls.c")
    subprocess.run(["cc", "-O2", "-shared", "-fPIC", "-o", library, source], check=True)
    daemon = make_daemon(prefix=["env", f"LD_PRELOAD={library}"]).start()
    daemon.stop()
    lines = daemon.console.read_text().splitlines()
    assert lines[-3].endswith("DEBUG: void Run: Leave")
    assert lines[-2:] == ["closelog", "_exit"]


def test_a_stop_signal_ends_it_while_requests_are_on_their_way(daemon):
    with Destination(daemon.root.destination_port, hang) as destination:
        with connect(daemon.root.http_port) as client:
            client.sendall(b"GET /api/version HTTP/1.1\r\nHost: x\r\n\r\n")
            destination.wait_for_connections(1)
            daemon.stop()


def test_a_stop_signal_during_start_up_is_not_lost(make_daemon):
    daemon = make_daemon().launch()
    daemon.wait_for_log("DEBUG: bool Init: Leave$")
    daemon.send_signal(signal.SIGTERM)
    assert daemon.wait_for_exit() == 0
    assert f"Exit by signal 15, from pid {os.getpid()}" in daemon.log_text()


def test_a_broken_pipe_does_not_end_it(daemon):
    daemon.send_signal(signal.SIGPIPE)
    mark = daemon.mark()
    hang_up(daemon, mark)
    assert daemon.is_running()


def test_the_first_pass_has_no_signal(daemon):
    first = daemon.wait_for_log("DEBUG: void Run: Got signal .*$")[0]
    assert first[0] == "DEBUG: void Run: Got signal 0, from pid 0"


def test_each_pass_names_the_last_signal_and_its_sender(daemon):
    mark = daemon.mark()
    hang_up(daemon, mark)
    daemon.wait_for_log(GOT_SIGNAL.format(1, os.getpid()), since=mark)


def test_the_first_pass_looks_at_the_key_and_then_at_the_address(daemon):
    text = daemon.log_text()
    parts = ["INFO: void Run: tavlo started", "DEBUG: void Run: Got signal 0",
             "DEBUG: void Run: Update pairing key", "DEBUG: void Run: Update LAN address"]
    places = [text.index(part) for part in parts]
    assert places == sorted(places)


def test_hup_does_not_look_at_the_address_again_within_a_minute(daemon):
    mark = daemon.mark()
    hang_up(daemon, mark)
    # A second pass shows that the first one is through.
    hang_up(daemon, mark, count=2)
    assert daemon.count_in_log("Update LAN address", since=mark) == 0


def test_hup_reads_the_key_though_the_file_looks_unchanged(root, daemon, sdk_host):
    mtime = int(root.router_info.stat().st_mtime)
    root.write_pairing_key("another", mtime=mtime)
    mark = daemon.mark()
    hang_up(daemon, mark)
    daemon.wait_for_log("DEBUG: void Run: Update pairing key$", since=mark)
    daemon.wait_for_log(r"DEBUG: void tavlo::AgentHost::SetPairingKey: Updated: 'ano\.\.\.'$",
                        since=mark)
    for key, status in ((PAIRING_KEY, 417), ("another", 200)):
        answer = ask(root.https_port, "GET", "/api/x", headers={"PairingKey": key}, tls=True)
        assert answer.status == status


def test_hup_moves_the_log_to_a_new_file_when_the_old_one_was_renamed(daemon):
    old = daemon.log.with_name("log.1")
    daemon.log.rename(old)
    hang_up(daemon, 0, path=old)
    daemon.wait_for_log("Update pairing key$")
    # The old file ends with the line that announces the change.
    assert daemon.log_text(path=old).endswith("DEBUG: void Run: HUP\n")
    size = old.stat().st_size
    mark = daemon.mark()
    hang_up(daemon, mark)
    assert old.stat().st_size == size
    daemon.stop()
    assert (daemon.log_text(path=old) + daemon.log_text()
            == daemon.log_text(path=daemon.console))


def test_a_log_that_cannot_be_reopened_is_taken_up_again_at_the_next_hup(daemon):
    old = daemon.log.with_name("log.1")
    daemon.log.rename(old)
    daemon.log.mkdir()
    # The log is opened after the line that tells of the signal.
    daemon.hang_up()
    daemon.hang_up()
    # Meanwhile only the console has lines.
    assert daemon.log_text(path=old).endswith("DEBUG: void Run: HUP\n")
    assert daemon.log_text(path=old).count("void Run: HUP") == 1
    daemon.log.rmdir()
    # With the log closed the HUP line itself is on the console only.
    daemon.hang_up()
    assert "void Run: HUP" not in daemon.log_text()
    mark = daemon.mark()
    hang_up(daemon, mark)


def test_a_log_that_could_not_be_opened_at_the_start_is_opened_at_the_first_hup(root,
                                                                              make_daemon):
    daemon = make_daemon()
    daemon.log = root.directory / "later" / "log"
    daemon.launch()
    daemon.wait_for_log("tavlo started", path=daemon.console)
    daemon.log.parent.mkdir()
    hang_up(daemon, 0, path=daemon.console)
    daemon.wait_for_log("Update pairing key$")


def test_hup_without_a_log_file_is_harmless(root, make_daemon):
    daemon = make_daemon()
    daemon.log = ""
    daemon.launch()
    daemon.log = daemon.console
    daemon.wait_for_log("tavlo started")
    hang_up(daemon, daemon.mark())


def test_many_hups_lose_no_descriptor(daemon):
    daemon.hang_up()
    before = daemon.descriptors()
    for _ in range(50):
        daemon.hang_up()
    assert daemon.descriptors() == before
