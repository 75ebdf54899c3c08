"""A start for which something is missing ends with status 1 and says what: whoever supervises the
daemon and whoever reads the log can tell it from an end that was wished for."""

import re

import pytest

from support.clients import ask
from support.programs import compile_preload, needs_cc
from support.waiting import EMULATOR, SANITIZER, wait_until

pytestmark = [needs_cc, pytest.mark.skipif(
    SANITIZER != "" or EMULATOR != "",
    reason="a sanitizer and an emulator need descriptors, threads and memory of their own")]

LOADER_FAILED = 127  # not even the libraries could be opened
NO_DESCRIPTORS = r"ERROR: .*\b24 Too many open files"


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
