"""What a crash of the daemon leaves behind."""

import ctypes
import os
import re
import signal
import subprocess
import tempfile
import threading
from concurrent.futures import ThreadPoolExecutor
from contextlib import suppress
from http.client import HTTPException
from pathlib import Path

import pytest

from conftest import daemons
from support.clients import Client, connect
from support.daemon import (BINARY, DIE_WITH_PARENT, IS_FOR_32_BIT_ARM, IS_WITH_MUSL, PROGRAM,
                            wait_for_rest)
from support.scratch_root import ScratchRoot
from support.waiting import DEFAULT_LIMIT, SANITIZER, wait_until

SIGNALS = [signal.SIGSEGV, signal.SIGABRT, signal.SIGILL, signal.SIGFPE, signal.SIGBUS,
           signal.SIGSYS]
RECORD_END = "-" * 50 + "\n\n"


def record_of(root):
    return (root.directory / "tmp" / "tavlo-backtrace.log").read_text()


def has_frame(record, function):
    return re.search(rf"^0x[0-9a-f]+ {re.escape(function)} \+ 0x[0-9a-f]+$", record, re.MULTILINE)


def assert_traced(record, function):
    """That of a thread that was hit while it waited in one of the C library's functions."""
    if IS_WITH_MUSL:
        # The code of its system calls has no unwind tables, and the record ends there.
        place = re.search(r" PC: (0x[0-9a-f]+) ", record)[1]
        assert re.search(rf"^{place} ", record, re.MULTILINE)
    else:
        assert has_frame(record, function)


def thread_numbers(daemon):
    return set(map(int, os.listdir(f"/proc/{daemon.pid}/task")))


def crash_thread(daemon, thread, number=signal.SIGSEGV):
    """Sends the signal to one thread alone."""
    wait_for_rest(thread)
    libc = ctypes.CDLL(None, use_errno=True)
    assert libc.tgkill(daemon.pid, thread, number) == 0, os.strerror(ctypes.get_errno())
    assert daemon.process.wait(DEFAULT_LIMIT) == -number


def identity_in_log(daemon, pattern):
    """The thread that logged a line, as the log shows it."""
    return int(daemon.wait_for_log(rf"\[\w+\.(\w+)\] \w+: .*{pattern}")[0][1], 16)


def pauses_of(daemon, thread):
    with open(f"/proc/{daemon.pid}/task/{thread}/status", encoding="ascii") as status:
        return next(int(line.split()[1]) for line in status
                    if line.startswith("voluntary_ctxt_switches:"))


def thread_that_serves(daemon, port, tls):
    """The one that pauses most while requests come one by one: it does so after each of them."""
    before = {thread: pauses_of(daemon, thread) for thread in thread_numbers(daemon)}
    with Client(port, tls) as client:
        for _ in range(100):
            client.ask("GET", "/to-know-its-thread")
    found = max(before, key=lambda thread: pauses_of(daemon, thread) - before[thread])
    daemon.wait_for_no_clients()
    return found


@pytest.mark.parametrize("number", SIGNALS, ids=lambda number: number.name)
def test_a_fatal_signal_is_recorded_below_the_root_prefix(root, daemon, number):
    daemon.crash(number)
    record = record_of(root)
    assert re.match(r"\(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\) Process exit due to signal: "
                    rf"{number.value}\nFault Address: .*\nFault address: .* PC: 0x.* SP: 0x.* LR: .*"
                    r"\nBacktrace:\n", record)
    assert_traced(record, "Run()")
    assert record.endswith(RECORD_END)
    line = f"Process exit due to signal: {number.value}"
    assert f" ERROR: void {{anonymous}}::CrashHandler: {line} (" in daemon.log_text()
    text = signal.strsignal(number)
    if IS_WITH_MUSL and number == signal.SIGFPE:
        text = "Arithmetic exception"
    assert f"CrashHandler: {line} ({text})\n{line}({text})\n" in daemon.console.read_text()


def writes_to_standard_output(pid):
    """Whether it waits there: of the call its number is not looked at, but its first argument."""
    return Path(f"/proc/{pid}/syscall").read_text(encoding="ascii").split()[1:2] == ["0x1"]


def test_before_it_has_read_its_options_the_record_goes_to_tmp_under_the_name_of_its_call(tmp_path):
    program = tmp_path / f"tavlo-test-{os.getpid()}"
    program.symlink_to(BINARY)
    record = Path(f"/tmp/{program.name}-backtrace.log")
    reader, writer = os.pipe()
    with open(reader, "rb", buffering=0) as output, open(writer, "wb", buffering=0) as full:
        os.set_blocking(writer, False)
        while full.write(bytes(4096)):  # in the end there is no room for the usage text
            pass
        os.set_blocking(writer, True)
        process = subprocess.Popen([*DIE_WITH_PARENT, *PROGRAM[:-1], program, "-h"], stdout=full)
        try:
            wait_until(lambda: writes_to_standard_output(process.pid), "its writing of the usage text")
            process.send_signal(signal.SIGSEGV)
            wait_until(lambda: record.exists() and record.read_text().endswith(RECORD_END),
                       "its record")
            assert "Process exit due to signal: 11\n" in record.read_text()
            output.read(1 << 20)  # which it waits for before it writes to standard error
            assert process.wait(DEFAULT_LIMIT) == -signal.SIGSEGV
        finally:
            process.kill()
            process.wait()
            record.unlink(missing_ok=True)


def test_records_of_one_daemon_after_another_are_kept(root, make_daemon):
    for _ in range(2):
        daemon = make_daemon().start()
        daemon.crash()
        daemon.log.unlink()  # else it says that the next one has started
    record = record_of(root)
    assert record.count("Process exit due to signal: 11\n") == 2


def test_without_the_directory_there_is_the_log_line_alone(root, daemon):
    (root.directory / "tmp").rmdir()
    daemon.crash()
    assert "CrashHandler: Process exit due to signal: 11 (Segmentation fault)" in daemon.log_text()


@pytest.fixture
def private_tmp():
    """A scratch root, and what starts the daemon with the root's `tmp` in the place of /tmp."""
    if os.geteuid() != 0:
        pytest.skip("only root can give the daemon a /tmp of its own")
    if Path("/tmp") in Path(BINARY).resolve().parents:
        pytest.skip("the daemon's program is in /tmp, which it is not to see")
    with tempfile.TemporaryDirectory(prefix="tavlo-test-", dir="/var/tmp") as directory:
        made = ScratchRoot(Path(directory))
        yield made, ["unshare", "--mount", "--propagation", "private", "sh", "-c",
                     'mount --bind "$0" /tmp && exec "$@"', str(made.directory / "tmp")]


def test_without_a_root_prefix_the_record_is_in_the_default_one(private_tmp):
    root, prefix = private_tmp
    root.settings["rootPrefix"] = None
    directory = root.directory / "tmp" / "qvd" / "tmp"
    directory.mkdir(parents=True)
    with daemons(root) as make:
        make(prefix=prefix).start().crash()
    record = (directory / "tavlo-backtrace.log").read_text()
    assert "Process exit due to signal: 11\n" in record


def test_a_crash_of_the_main_thread_names_its_function(root, daemon):
    main = identity_in_log(daemon, "tavlo started$")
    crash_thread(daemon, daemon.pid)
    assert_traced(record_of(root), "Run()")
    assert not has_frame(record_of(root), "tavlo::AgentHost::Run()")
    assert identity_in_log(daemon, "CrashHandler: ") == main


@pytest.mark.parametrize("tls", [False, True], ids=["http", "https"])
def test_a_crash_of_a_listener_thread_names_its_function(root, daemon, tls):
    thread = thread_that_serves(daemon, root.https_port if tls else root.http_port, tls)
    listener = identity_in_log(daemon, "GET /to-know-its-thread$")
    crash_thread(daemon, thread)
    # There glibc has no unwind table for epoll_wait, which the thread is in, and the record ends.
    if not IS_FOR_32_BIT_ARM:
        assert_traced(record_of(root), "tavlo::AgentHost::Run()")
    assert not has_frame(record_of(root), "Run()")
    assert identity_in_log(daemon, "CrashHandler: ") == listener


def test_a_crash_of_a_watchdog_thread_names_its_function(root, make_daemon):
    gate = root.directory / "gate"
    os.mkfifo(gate)
    root.write_hook(root.internal_hooks, "10-wait", f"#!/bin/sh\nread line <{gate}\n")
    root.settings["agentDataPath"] = str(root.agent_data)
    daemon = make_daemon().start()
    before = thread_numbers(daemon)
    with connect(root.http_port) as client:
        client.sendall(b"PATCH /api/1/router-ref HTTP/1.1\r\nHost: x\r\nContent-Length: 1\r\n\r\nx")
        with open(gate, "r+b", buffering=0) as held:
            daemon.wait_for_log("Running subprocess timeout thread for PID")
            (watchdog,) = thread_numbers(daemon) - before
            crash_thread(daemon, watchdog)
            held.write(b"go on\n")
    assert_traced(record_of(root), "Orx::SubprocessTimeout::Run()")
    assert not has_frame(record_of(root), "tavlo::AgentHost::Run()")
    assert identity_in_log(daemon, "CrashHandler: ") == identity_in_log(
        daemon, "Running subprocess timeout thread for PID")


def test_a_listener_that_is_hit_under_load_leaves_its_record(root, make_daemon, sdk_host):
    """It may be within the heap or the log then, with their locks."""
    if SANITIZER == "thread":
        pytest.skip("ThreadSanitizer puts off the alarm that ends one that was hit within the log")
    for round_ in range(6):
        daemon = make_daemon().start()
        thread = thread_that_serves(daemon, root.http_port, False)
        done = threading.Event()

        def load():
            with suppress(OSError, HTTPException), Client(root.http_port) as client:
                while not done.is_set():
                    client.ask("GET", "/api/version")

        with ThreadPoolExecutor(2) as pool:
            for _ in range(2):
                pool.submit(load)
            mark = daemon.mark()
            daemon.wait_for_log("GET /api/version$", since=mark, count=50)
            ctypes.CDLL(None).tgkill(daemon.pid, thread, signal.SIGABRT)
            # Whoever is hit within the log cannot log that; the alarm ends it.
            assert daemon.process.wait(DEFAULT_LIMIT) in (-signal.SIGABRT, 1)
            done.set()
        record = record_of(root)
        assert record.count(") Process exit due to signal: 6\n") == round_ + 1
        assert record.endswith(RECORD_END)
        daemon.log.unlink()


def test_a_shell_that_supervises_it_sees_128_and_the_signal(root, make_daemon):
    statuses = root.directory / "statuses"
    supervisor = make_daemon(prefix=[
        "sh", "-c", 'until "$@"; do echo $? >>"$0"; done; echo $? >>"$0"', statuses,
        *DIE_WITH_PARENT]).launch()
    for count, number in enumerate((signal.SIGSEGV, signal.SIGABRT, signal.SIGTERM), start=1):
        # It listens again each time, on the same ports.
        last = supervisor.wait_for_log(r"\[(\w+)\.\w+\] INFO: void Run: tavlo started$",
                                       count=count)[-1]
        pid = int(last[1], 16)
        wait_for_rest(pid)
        os.kill(pid, number)
    assert supervisor.wait_for_exit() == 0
    assert statuses.read_text().split() == ["139", "134", "0"]
    assert re.findall(r"due to signal: (\d+)", record_of(root)) == ["11", "6"]


def test_a_record_file_of_somebody_else_is_left_alone(root, make_daemon):
    if os.getuid() != 0:
        pytest.skip("only root can become somebody else")
    root.directory.chmod(0o755)
    (root.directory / "tmp").chmod(0o777)
    (root.directory / "tmp" / "tavlo-backtrace.log").write_text("root's\n")
    root.settings["agentUser"] = "nobody"
    daemon = make_daemon().start()
    daemon.crash()
    assert record_of(root) == "root's\n"
    assert "CrashHandler: Process exit due to signal: 11 (Segmentation fault)" in daemon.log_text()
