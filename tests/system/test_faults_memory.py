"""Memory that is refused: the daemon goes on and answers, or it ends with an error in the log. It
never hangs, never lets through what is not allowed, and keeps nothing."""

import http.client
import os
import pwd
import shutil
import signal
import subprocess
import tempfile
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import pytest

from sdk_rest_host import SdkRestHost
from support.clients import ask
from support.daemon import BINARY
from support.destinations import Destination, answer_bytes
from support.failing_malloc import Memory
from support.raw_requests import RequestRecorder
from support.scratch_root import PAIRING_KEY, ScratchRoot
from support.waiting import EMULATOR, SANITIZER, wait_until

KEY = {"PairingKey": PAIRING_KEY}
BODY = b"GET /api/behind-the-rule HTTP/1.1\r\nHost: x\r\n\r\n" * 100
OWN_CALLS = 140  # of a start: what comes before OpenSSL sets itself up
OTHER_STARTS = 40  # of some nine thousand possible ones
SETTING_READ = r"AppSettings::LoadConfigFile: \w+="
TLS_REQUESTS = 150  # of some twelve hundred possible ones

pytestmark = pytest.mark.skipif(
    SANITIZER != "" or EMULATOR != "" or shutil.which("cc") is None,
    reason="needs cc, and a daemon whose malloc can be replaced and whose address space limited: no "
    "sanitizer's and no emulated one")


@pytest.fixture
def root():
    # Not in /tmp, which is another one for the daemon.
    with tempfile.TemporaryDirectory(prefix="tavlo-test-", dir="/var/tmp") as directory:
        yield ScratchRoot(Path(directory))


@pytest.fixture
def memory(root):
    if os.geteuid() != 0:
        pytest.skip("only root can give the daemon a /tmp of its own")
    if Path("/tmp") in Path(BINARY).resolve().parents:
        pytest.skip("the daemon's program is in /tmp, which it is not to see")
    return Memory(root.directory)


@pytest.fixture
def start(root, make_daemon, memory):
    def start_daemon():
        (root.directory / "log").unlink(missing_ok=True)
        start_daemon.latest = make_daemon(prefix=memory.prefix).start()
        return start_daemon.latest

    return start_daemon


def identity(daemon):
    with open(f"/proc/{daemon.pid}/status", encoding="ascii") as status:
        return next([int(number) for number in line.split()[1:]] for line in status
                    if line.startswith("Uid:"))


def ask_for_mac(root):
    try:
        return ask(root.http_port, "GET", "/api/mac").status in (200, 500)
    except (OSError, http.client.HTTPException):
        return False


def assert_only_the_allowed_passes(root):
    assert ask(root.http_port, "GET", "/api/x").status == 417
    for tls in (False, True):
        try:
            status = ask(root.https_port, "GET", "/api/x", headers={"PairingKey": "guessed"},
                         tls=tls).status
        except (OSError, http.client.HTTPException):
            continue  # it speaks the other one
        assert status in (417, 500)


def change(root, tls, key=KEY):
    """Returns the status and the reason, or what happened to the connection."""
    port = root.https_port if tls else root.http_port
    try:
        answer = ask(port, "PATCH", "/api/1/router-ref", BODY, key, tls=tls)
    except (OSError, http.client.HTTPException) as error:
        return "no answer", type(error).__name__
    return answer.status, answer.reason


def assert_ended_with_an_error(daemon):
    """By itself, with the cause in the log or on the console; or by a signal, with a record."""
    status = daemon.wait_for_exit()
    console = daemon.log_text(path=daemon.console)
    record = daemon.root.directory / "tmp" / "tavlo-backtrace.log"
    text = record.read_text() if record.exists() else ""
    record.unlink(missing_ok=True)
    if status == -signal.SIGABRT:
        assert "libevent: Out of memory: " in console or "std::bad_alloc" in console
        # What the libraries and the daemon make before `main` nobody can catch.
        assert "tavlo started" in console or console.startswith("terminate called after throwing")
    elif status == -signal.SIGSEGV:
        # json-c does not look at each refusal while it reads the configuration.
        assert "json_tokener_parse_ex" in text, console
    else:
        assert "ERROR: " in console
        assert status == 1, console
    # The handler's record needs the name of the program, for which there may be no memory yet.
    assert status >= 0 or f"due to signal: {-status}\n" in text or daemon.log_text() == ""
    return status


def assert_refusals_are_borne(root, start, memory, tls, numbers):
    """One request for each number, with that call refused. Returns how often the daemon ended, and
    whether the last number was beyond what a request needs."""
    ends, last = 0, False
    recorder = RequestRecorder(answer_bytes(b"ok"))
    with Destination(root.destination_port, recorder):
        daemon, live, threads = None, 0, 0
        for number in numbers:
            if daemon is not start.latest:
                daemon = start.latest
                for _ in range(3):
                    assert change(root, tls) == (200, "OK")
                daemon.wait_for_no_clients()
                live, threads, recorded = memory.live, daemon.threads(), len(recorder.take())
                assert recorded == 3
            memory.refuse(number)
            outcome = change(root, tls)
            last = memory.refused == 0
            memory.refuse_none()
            assert outcome[0] in ("no answer", 200, 400, 500), (number, outcome)
            daemon_after = running(root, start)
            # What came to the destination is what was asked, whole, or nothing.
            for request in recorder.take():
                assert request.start == b"PATCH /api/1/router-ref HTTP/1.1", number
                assert request.body == BODY, number
            if daemon_after is not daemon:
                ends += 1
            elif number % 10 == 0:
                daemon.wait_for_no_clients()
                assert daemon.threads() == threads
                assert memory.live < live + 100
            if last:
                break
    return ends, last


def test_a_refused_allocation_costs_one_request_or_ends_the_daemon(root, start, memory):
    start()
    ends, last = assert_refusals_are_borne(root, start, memory, False, range(1, 1000))
    assert last
    assert ends > 0


def test_a_refused_allocation_costs_one_request_over_tls_or_ends_the_daemon(root, start, memory):
    start()
    with SdkRestHost(root.destination_port):
        for _ in range(2):
            memory.refuse_none()
            assert change(root, True) == (200, "OK")
    step = max(1, memory.calls // TLS_REQUESTS)
    _, last = assert_refusals_are_borne(root, start, memory, True, range(1, 100000, step))
    assert last


def test_a_lock_is_not_kept_for_want_of_memory(root, start, memory):
    start()
    for number in range(1, 1000):
        memory.refuse(number)
        ask_for_mac(root)
        refused = memory.refused
        memory.refuse_none()
        daemon = running(root, start)
        daemon.wait_for_no_clients()
        subprocess.run(["flock", "--nonblock", root.device_list, "true"], check=True)
        if refused == 0:
            return
    raise AssertionError("a request needs more calls than were tried")


@pytest.mark.parametrize("tls", [False, True])
def test_nobody_gets_in_when_allocations_are_refused(root, start, memory, tls):
    """From a certain call on, every one is refused until the request has its answer or none."""
    start()
    uri, key = ("/api/x", {"PairingKey": "guessed"}) if tls else ("/api/x", KEY)
    port = root.https_port if tls else root.http_port
    recorder = RequestRecorder(answer_bytes(b"ok"))
    with Destination(root.destination_port, recorder):
        for number in [*range(1, 60), *range(60, 1000, 20)]:
            daemon = running(root, start)
            memory.refuse(number, 1 << 40)
            try:
                status = ask(port, "GET", uri, headers=key, tls=tls).status
            except (OSError, http.client.HTTPException):
                status = None
            refused = memory.refused
            memory.refuse_none()
            assert status in (None, 400, 417, 500), number
            if refused == 0:
                break
        running(root, start)
    assert recorder.take() == []


def running(root, start):
    """The daemon, perhaps another one: it may be ending. One that has served leaves a record."""
    daemon = start.latest
    wait_until(lambda: not daemon.is_running() or ask_for_mac(root), "the end, or an answer")
    if daemon.is_running():
        return daemon
    assert assert_ended_with_an_error(daemon) == -signal.SIGABRT
    return start()


def test_a_start_without_memory_ends_with_an_error_or_does_no_harm(root, make_daemon, memory):
    root.directory.chmod(0o755)
    account = pwd.getpwnam("nobody")
    os.chown(root.router_info, account.pw_uid, account.pw_gid)
    root.settings["agentUser"] = "nobody"
    settings = root.settings
    incomplete = []
    recorder = RequestRecorder(answer_bytes(b"ok"))

    def start_with_refusal(number):
        (root.directory / "log").unlink(missing_ok=True)
        daemon = make_daemon(prefix=memory.prefix)
        memory.refuse(number)
        daemon.launch()
        wait_until(lambda: daemon.process.poll() is not None or
                   "UpdateLanAddress" in daemon.log_text(path=daemon.console),
                   "the end, or a start")
        memory.refuse_none()
        if not daemon.is_running():
            assert_ended_with_an_error(daemon)
            return
        if daemon.count_in_log(SETTING_READ) == len(settings):
            assert identity(daemon) == [account.pw_uid] * 4
            assert ask(root.http_port, "GET", "/api/version").status == 200
            assert_only_the_allowed_passes(root)
        else:
            # json-c leaves out a value for which it gets no memory, and does not tell.
            incomplete.append(number)
        daemon.kill()

    with Destination(root.destination_port, recorder):
        counting = make_daemon(prefix=memory.prefix)
        memory.refuse_none()
        counting.start()
        calls = memory.calls
        counting.kill()
        for number in [*range(1, OWN_CALLS), *range(OWN_CALLS, calls, calls // OTHER_STARTS)]:
            start_with_refusal(number)
    assert {request.start for request in recorder.take()} == {b"GET /api/version HTTP/1.1"}
    assert len(incomplete) <= 2 * len(settings), incomplete


def limit_memory(daemon, kib):
    """More than this, beyond what it has, is refused; None for no limit."""
    limit = "unlimited"
    if kib is not None:
        with open(f"/proc/{daemon.pid}/status", encoding="ascii") as status:
            used = next(int(line.split()[1]) for line in status if line.startswith("VmSize:"))
        limit = (used + kib) * 1024
    subprocess.run(["prlimit", "--pid", str(daemon.pid), f"--as={limit}:"], check=True)


@pytest.mark.parametrize("kib", [0, 256, 1024, 4096])
@pytest.mark.parametrize("tls", [False, True])
def test_bodies_that_find_no_address_space(root, daemon, sdk_host, tls, kib):
    bodies = [b"b" * size for size in (10, 30000, 32768, 1000000, 2000000)] * 8
    port = root.https_port if tls else root.http_port

    def send(body):
        try:
            return ask(port, "PATCH", "/api/1/router-ref", body, KEY, tls=tls).status
        except (OSError, http.client.HTTPException):
            return None

    assert send(b"x") == 200
    limit_memory(daemon, kib)
    with ThreadPoolExecutor(8) as pool:
        statuses = set(pool.map(send, bodies))
    assert statuses <= {None, 200, 400, 413, 500}
    if daemon.is_running():
        limit_memory(daemon, None)
        wait_until(lambda: not daemon.is_running() or send(b"x") == 200, "the end, or an answer")
    if not daemon.is_running():
        assert_ended_with_an_error(daemon)
        daemon.process = None
    assert {len(request.body) for request in sdk_host.requests} <= {1, 10, 30000, 32768}
