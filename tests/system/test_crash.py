"""What a crash of the daemon leaves behind."""

import re
import signal

import pytest

SIGNALS = [signal.SIGSEGV, signal.SIGABRT, signal.SIGILL, signal.SIGFPE, signal.SIGBUS,
           signal.SIGSYS]


def crash(daemon, number):
    daemon.send_signal(number)
    assert daemon.process.wait(30) == -number


@pytest.mark.parametrize("number", SIGNALS, ids=lambda number: number.name)
def test_a_fatal_signal_is_recorded_below_the_root_prefix(root, daemon, number):
    crash(daemon, number)
    record = (root.directory / "tmp" / "tavlo-backtrace.log").read_text()
    assert re.match(r"\(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\) Process exit due to signal: "
                    rf"{number.value}\nFault Address: .*\nFault address: .* PC: 0x.* SP: 0x.* LR: .*"
                    r"\nBacktrace:\n", record)
    assert re.search(r"^0x[0-9a-f]+ Run\(\) \+ 0x[0-9a-f]+$", record, re.MULTILINE)
    assert record.endswith("-" * 50 + "\n\n")
    line = f"Process exit due to signal: {number.value}"
    assert f" ERROR: void {{anonymous}}::CrashHandler: {line} (" in daemon.log_text()
    assert f"\n{line}(" in daemon.console.read_text()


def test_records_of_one_daemon_after_another_are_kept(root, make_daemon):
    for _ in range(2):
        daemon = make_daemon().start()
        crash(daemon, signal.SIGSEGV)
        daemon.log.unlink()  # else it says that the next one has started
    record = (root.directory / "tmp" / "tavlo-backtrace.log").read_text()
    assert record.count("Process exit due to signal: 11\n") == 2


def test_without_the_directory_there_is_the_log_line_alone(root, daemon):
    (root.directory / "tmp").rmdir()
    crash(daemon, signal.SIGSEGV)
    assert "CrashHandler: Process exit due to signal: 11 (Segmentation fault)" in daemon.log_text()
