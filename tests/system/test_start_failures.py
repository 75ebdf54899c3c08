"""A start for which something is missing ends with status 1 and says what: whoever supervises the
daemon and whoever reads the log can tell it from an end that was wished for."""

import os
import re
import signal
import tempfile
from pathlib import Path

import pytest

from conftest import daemons
from support.clients import ask
from support.daemon import BINARY
from support.failing_malloc import Memory
from support.programs import compile_preload, needs_cc
from support.scratch_root import ScratchRoot
from support.waiting import EMULATOR, SANITIZER, wait_until

pytestmark = [needs_cc, pytest.mark.skipif(
    SANITIZER != "" or EMULATOR != "",
    reason="a sanitizer and an emulator need descriptors, threads and memory of their own")]

LOADER_FAILED = 127  # not even the libraries could be opened
OWN_CALLS = 140  # of malloc and its like, before OpenSSL sets itself up
NO_DESCRIPTORS = r"ERROR: .*(?:\b24 Too many open files|\berrno 24\n)"


def launch_to_its_end_or_start(daemon):
    """Returns its status, or None when it has started."""
    daemon.launch()
    wait_until(lambda: daemon.process.poll() is not None or
               "UpdateLanAddress" in daemon.log_text(path=daemon.console), "an end or a start")
    return daemon.process.returncode


def test_a_start_without_descriptors_ends_with_its_cause(root, make_daemon):
    ends = starts = 0
    for limit in range(4, 24):
        (root.directory / "log").unlink(missing_ok=True)
        daemon = make_daemon(prefix=["prlimit", f"--nofile={limit}:"])
        status = launch_to_its_end_or_start(daemon)
        if status is None:
            starts += 1
            daemon.stop()
        elif status != LOADER_FAILED:
            ends += 1
            console = daemon.log_text(path=daemon.console)
            assert status == 1, (limit, status, console)
            assert re.search(NO_DESCRIPTORS, console), (limit, console)
            assert "tavlo started" not in console
    assert ends >= 5 and starts >= 5
    assert not (root.directory / "tmp" / "tavlo-backtrace.log").exists()


@pytest.mark.parametrize("number", [1, 2])
def test_a_start_without_a_thread_ends_with_its_cause(root, make_daemon, number):
    library = compile_preload("failing_thread", root.directory)
    daemon = make_daemon(prefix=["env", f"LD_PRELOAD={library}", f"FAILING_THREAD={number}"])
    assert launch_to_its_end_or_start(daemon) == 1
    console = daemon.log_text(path=daemon.console)
    assert re.search("ERROR: .*: Failed to start a thread: .*Resource temporarily unavailable",
                     console)
    assert "tavlo started" not in console


def test_with_all_its_threads_it_starts(root, make_daemon, sdk_host):
    """The counting above counts what it should."""
    library = compile_preload("failing_thread", root.directory)
    daemon = make_daemon(prefix=["env", f"LD_PRELOAD={library}", "FAILING_THREAD=3"]).start()
    assert ask(root.http_port, "GET", "/api/version").status == 200
    assert daemon.threads() == 3


@pytest.fixture
def elsewhere():
    """A root that is not in /tmp, which is another one for the daemon."""
    with tempfile.TemporaryDirectory(prefix="tavlo-test-", dir="/var/tmp") as directory:
        yield ScratchRoot(Path(directory))


@pytest.mark.skipif(os.geteuid() != 0, reason="only root can give the daemon a /tmp of its own")
@pytest.mark.skipif(Path("/tmp") in Path(BINARY).resolve().parents,
                    reason="the daemon's program is in /tmp, which it is not to see")
def test_a_start_without_memory_ends_with_its_cause(elsewhere):
    memory = Memory(elsewhere.directory)
    ends, early = [], 0
    with daemons(elsewhere) as make_daemon:
        for number in range(1, OWN_CALLS):
            (elsewhere.directory / "log").unlink(missing_ok=True)
            daemon = make_daemon(prefix=memory.prefix)
            memory.refuse(number)
            status = launch_to_its_end_or_start(daemon)
            memory.refuse_none()
            console = daemon.log_text(path=daemon.console)
            if status is None:
                daemon.kill()
            elif status == -signal.SIGSEGV:
                # json-c does not look at each refusal while it reads the configuration.
                record = elsewhere.directory / "tmp" / "tavlo-backtrace.log"
                assert "json_tokener_parse_ex" in record.read_text(), console
            elif "DEBUG: bool Init: Enter" in console or "Failed to start" in console:
                ends.append(number)
                assert status == 1, (number, status, console)
                assert "ERROR: " in console, (number, console)
                early += "ERROR: Failed to start: std::bad_alloc\n" in console
    assert len(ends) > 10 and early > 0
