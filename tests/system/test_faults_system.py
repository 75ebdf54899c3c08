"""What the system refuses or does behind the daemon's back: processes, threads, time, signals."""

import os
import signal
import subprocess
import threading
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import pytest

from support.clients import ask
from support.limits import set_own_limit
from support.scratch_root import PAIRING_KEY
from support.waiting import (DEFAULT_LIMIT, EMULATOR, SANITIZER, open_fifo_for_its_reader,
                             wait_until)

KEY = {"PairingKey": PAIRING_KEY}
CHANGE = ("PATCH", "/api/1/router-ref")
INTERNAL_ERROR = (500, "Internal error")
UNAVAILABLE = "Resource temporarily unavailable"
FAKE_TIME = next(Path("/usr/lib").glob("*/faketime/libfaketimeMT.so.1"), None)


@pytest.fixture
def as_user(root, make_daemon, sdk_host):
    """A daemon of a user with no other process, whose hooks let everything pass."""
    if os.geteuid() != 0:
        pytest.skip("only root can become somebody else")
    if EMULATOR or SANITIZER == "thread":
        pytest.skip("an emulator and ThreadSanitizer have threads of their own")
    user, number = "tavlo-fault-user", 100000 + os.getpid()
    passwd = root.directory / "passwd"
    passwd.write_text(Path("/etc/passwd").read_text(encoding="utf-8") +
                      f"{user}:x:{number}:{number}::/nonexistent:/bin/false\n", encoding="utf-8")
    root.settings["agentUser"] = user
    root.settings["agentDataPath"] = str(root.agent_data)
    (root.external_hooks / "agent").rmdir()
    root.write_hook(root.internal_hooks, "10-pass", "#!/bin/sh\nexit 0\n")
    (root.directory / "log").touch()
    for directory, _, files in os.walk(root.directory):
        for path in (directory, *(os.path.join(directory, name) for name in files)):
            os.chown(path, number, number)

    def make(*prefix):
        return make_daemon(prefix=[*prefix, "unshare", "--mount", "--propagation", "private", "sh",
                                   "-c", 'mount --bind "$0" /etc/passwd && exec "$@"', str(passwd)])

    return make


def change(root):
    return ask(root.http_port, *CHANGE, body=b"x")


def test_a_fork_that_is_refused_costs_one_request(root, as_user, sdk_host):
    daemon = as_user().start()
    # Before there is a watchdog: the kernel counts one for a moment after its end.
    threads = daemon.threads()
    assert change(root).status == 200
    daemon.wait_for_no_clients()
    descriptors = daemon.descriptors()
    wait_until(lambda: daemon.threads() == threads, "the end of the watchdog")
    set_own_limit(daemon, "nproc", threads)
    answer = change(root)
    assert (answer.status, answer.reason) == INTERNAL_ERROR
    assert ("ERROR", f"fork failed: {UNAVAILABLE}") in daemon.messages()
    assert len(sdk_host.requests) == 1
    assert ask(root.http_port, "GET", "/api/mac").status == 200
    set_own_limit(daemon, "nproc", 1000)
    assert change(root).status == 200
    daemon.wait_for_no_clients()
    assert daemon.descriptors() == descriptors
    wait_until(lambda: daemon.threads() == threads, "the end of the watchdog")


def test_a_watchdog_thread_that_is_refused_costs_one_request(root, as_user, sdk_host):
    daemon = as_user().start()
    threads = daemon.threads()
    assert change(root).status == 200
    wait_until(lambda: daemon.threads() == threads, "the end of the watchdog")
    # Room for the child, and then for no thread beside it.
    set_own_limit(daemon, "nproc", threads + 1)
    answer = change(root)
    assert (answer.status, answer.reason) == INTERNAL_ERROR
    assert any(text == f"Unexpected failure: {UNAVAILABLE}" for _, text in daemon.messages())
    assert len(sdk_host.requests) == 1
    set_own_limit(daemon, "nproc", 1000)

    def reaped():
        assert change(root).status == 200
        return daemon.zombies() == []

    wait_until(reaped, "the end of the child that nobody watched")


@pytest.mark.parametrize("threads", [1, 2])
def test_a_start_without_threads_ends(root, as_user, threads):
    if SANITIZER:
        pytest.skip("a sanitizer looks for leaks at the end with a process of its own")
    daemon = as_user("prlimit", f"--nproc={threads}:")
    daemon.launch()
    assert daemon.wait_for_exit() == 1
    assert f"ERROR: void Run: Failed to start a thread: {UNAVAILABLE}\n" in daemon.log_text()
    assert "tavlo started" not in daemon.log_text()


@pytest.fixture
def with_clock(root, make_daemon):
    """A daemon whose wall clock the test sets, by writing an offset; the machine's stays alone."""
    if FAKE_TIME is None or SANITIZER or EMULATOR:
        pytest.skip("needs libfaketime, and a build that it can be preloaded into")
    offset = root.directory / "offset"
    offset.write_text("+0\n")
    # Without the last but one the stand-in takes deadlines of the monotonic clock for the wall clock's.
    daemon = make_daemon(prefix=[
        "env", f"LD_PRELOAD={FAKE_TIME}", "FAKETIME_NO_CACHE=1", "FAKETIME_DONT_FAKE_MONOTONIC=1",
        "FAKETIME_DONT_RESET=1", "FAKETIME_FORCE_MONOTONIC_FIX=0",
        f"FAKETIME_TIMESTAMP_FILE={offset}"])
    return daemon, offset


@pytest.mark.parametrize("jump", ["-3650d", "-2h", "+2h", "+3650d"])
def test_a_clock_that_jumps_changes_nothing_but_the_log(root, with_clock, sdk_host, jump):
    daemon, offset = with_clock
    root.settings["agentDataPath"] = str(root.agent_data)
    root.write_hook(root.internal_hooks, "10-wait",
                    f"#!/bin/sh\n[ ! -p {root.directory}/gate ] || read line <{root.directory}/gate\n")
    daemon.start()
    year = daemon.log_text()[:4]
    os.mkfifo(root.directory / "gate")
    with ThreadPoolExecutor(1) as pool:
        # A watchdog, and a request at the destination's, are under way meanwhile.
        waiting = pool.submit(change, root)
        daemon.wait_for_log("Running subprocess timeout thread for PID")
        offset.write_text(jump + "\n")
        mark = daemon.mark()
        # Each SIGHUP has it look whether a listener has been silent for too long.
        for count in range(1, 4):
            daemon.send_signal(signal.SIGHUP)
            daemon.wait_for_log("void Run: HUP$", since=mark, count=count)
        assert not waiting.done()
        assert daemon.zombies() == []
        with open_fifo_for_its_reader(root.directory / "gate") as script:
            script.write("go on\n")
        assert waiting.result().status == 200
    (root.directory / "gate").unlink()
    assert ask(root.https_port, "GET", "/api/x", headers=KEY, tls=True).status == 200
    if jump.endswith("d"):
        assert daemon.log_text(mark)[:4] != year
    assert daemon.count_in_log("ERROR: void Run") == 0


def test_a_storm_of_signals_disturbs_nothing(root, make_daemon, sdk_host):
    root.settings["agentDataPath"] = str(root.agent_data)
    (root.external_hooks / "agent").rmdir()
    seen = root.directory / "seen"
    # It fills its pipes piece by piece, so that the daemon waits for each.
    root.write_hook(root.internal_hooks, "10-slow", "#!/bin/sh\n"
                    f'for i in 1 2 3; do echo $i; echo line $i >&2; done\n'
                    f'[ $# -lt 6 ] || cat "$6" >>{seen}\n')
    daemon = make_daemon().start()
    daemon.wait_for_no_clients()
    descriptors, threads = len(daemon.descriptors()), daemon.threads()
    done = threading.Event()

    def storm():
        numbers = (signal.SIGSTOP, signal.SIGCONT, signal.SIGHUP, signal.SIGCHLD, signal.SIGURG,
                   signal.SIGWINCH, signal.SIGPIPE)
        while not done.is_set():
            for number in numbers:
                daemon.send_signal(number)
            done.wait(0.001)
        daemon.send_signal(signal.SIGCONT)

    def work(number):
        if number % 4 == 0:
            return ask(root.http_port, "GET", "/api/mac").status
        if number % 4 == 1:
            # Without a body: the two listeners share the file that hands it over.
            return ask(root.https_port, "GET", "/api/x", headers=KEY, tls=True).status
        return ask(root.http_port, *CHANGE, b"%04d\n" % number).status

    stormy = threading.Thread(target=storm)
    stormy.start()
    try:
        with ThreadPoolExecutor(8) as pool:
            assert set(pool.map(work, range(120))) == {200}
    finally:
        done.set()
        stormy.join(DEFAULT_LIMIT)
    # Each hook got its own body, once.
    expected = sorted(b"%04d\n" % number for number in range(120) if number % 4 > 1)
    assert sorted(seen.read_bytes().splitlines(keepends=True)) == expected
    assert sorted(request.body for request in sdk_host.requests if request.body) == expected
    daemon.wait_for_no_clients()
    wait_until(lambda: daemon.threads() == threads, "the end of the watchdogs")
    # Two to the destination; the last pass may have a file open yet.
    wait_until(lambda: len(daemon.descriptors()) <= descriptors + 2, "what was opened to be closed")
    assert daemon.zombies() == []


def test_a_thousand_hang_ups_under_load(root, daemon, sdk_host):
    ask(root.http_port, "GET", "/api/version")
    ask(root.https_port, "GET", "/api/x", headers=KEY, tls=True)
    daemon.wait_for_no_clients()
    before, threads = daemon.descriptors(), daemon.threads()
    done = threading.Event()

    def load(tls):
        statuses = set()
        while not done.is_set():
            port = root.https_port if tls else root.http_port
            statuses.add(ask(port, "GET", "/api/version", headers=KEY, tls=tls).status)
        return statuses

    with ThreadPoolExecutor(4) as pool:
        loads = [pool.submit(load, tls) for tls in (False, True, False, True)]
        passes = r"void Run: Got signal 1, "
        for _ in range(1000):
            # One that comes while another waits is the same one: the kernel keeps no count.
            daemon.send_signal(signal.SIGHUP)
        done.set()
        assert [job.result() for job in loads] == [{200}] * 4
    daemon.wait_for_log(passes)
    # Whatever was logged, and by whom, is there: in both places the same, line by line.
    daemon.wait_for_no_clients()
    # The log may have another number now, and the last pass a file open yet.
    wait_until(lambda: len(daemon.descriptors()) == len(before), "what was opened to be closed")
    assert daemon.threads() == threads
    daemon.stop()
    assert daemon.log_text() == daemon.log_text(path=daemon.console)
