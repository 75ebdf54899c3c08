"""Files and directories that are full, gone, of another kind, or may not be written."""

import fcntl
import os
import shutil
import signal
import threading
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import pytest

from support.clients import ask
from support.limits import inside, own_file_system, remount
from support.scratch_root import PAIRING_KEY
from support.waiting import DEFAULT_LIMIT, open_fifo_for_its_reader, wait_until

CHANGE = ("PATCH", "/api/1/router-ref")
INTERNAL_ERROR = (500, "Internal error")

needs_root = pytest.mark.skipif(os.geteuid() != 0, reason="only root can mount a file system")


def assert_serving(root):
    assert ask(root.http_port, "GET", "/api/mac").status == 200
    assert ask(root.https_port, "GET", "/api/mac", tls=True).status == 200


@pytest.fixture
def on_small_disk(root, make_daemon):
    """A daemon whose log, or body file, is on a file system of its own of 64 KiB."""
    disk = root.directory / "disk"
    disk.mkdir()

    def start(log=False):
        daemon = make_daemon(prefix=own_file_system(disk, "64k"))
        if log:
            daemon.log = disk / "log"
        daemon.launch()
        daemon.wait_for_log("void UpdateLanAddress", path=daemon.console)
        return daemon

    start.disk = disk
    return start


def fill(daemon, disk):
    filler = Path(inside(daemon, disk / "filler"))
    with pytest.raises(OSError), open(filler, "wb", buffering=0) as file:
        while True:
            file.write(b"f" * 4096)
    return filler


@needs_root
def test_a_full_disk_stops_the_log_and_nothing_else(root, on_small_disk):
    daemon = on_small_disk(log=True)
    log = Path(inside(daemon, daemon.log))
    assert log.stat().st_size > 0
    filler = fill(daemon, on_small_disk.disk)
    for _ in range(100):
        assert ask(root.http_port, "GET", "/to-fill-the-log" * 100).status == 404
    assert_serving(root)
    size = log.stat().st_size
    assert ask(root.http_port, "GET", "/unlogged").status == 404
    assert log.stat().st_size == size
    assert "/unlogged" in daemon.log_text(path=daemon.console)
    filler.unlink()
    daemon.hang_up()
    assert ask(root.http_port, "GET", "/logged-again").status == 404
    assert "/logged-again" in log.read_text()


LARGEST_FILE = 32768


def test_a_log_that_is_as_large_as_a_file_may_be_stops_and_nothing_else(root, make_daemon):
    small_files = ["prlimit", f"--fsize={LARGEST_FILE}"]
    daemon = make_daemon(prefix=small_files).start()
    for _ in range(100):
        assert ask(root.http_port, "GET", "/to-fill-the-log" * 100).status == 404
    assert_serving(root)
    assert daemon.mark() == LARGEST_FILE
    # It is no larger for another one: that begins with a full log.
    daemon.stop()
    daemon = make_daemon(prefix=small_files).launch()
    wait_until(lambda: daemon.is_running() and len(daemon.sockets()) == 2, "both listeners")
    assert_serving(root)


@needs_root
def test_a_full_disk_costs_requests_with_bodies(root, on_small_disk, sdk_host):
    root.settings["agentDataPath"] = str(on_small_disk.disk / "body")
    root.write_hook(root.internal_hooks, "10-pass", "#!/bin/sh\nexit 0\n")
    daemon = on_small_disk()
    filler = fill(daemon, on_small_disk.disk)
    answer = ask(root.http_port, *CHANGE, body=b"b" * 30000)
    assert (answer.status, answer.reason) == INTERNAL_ERROR
    assert ("ERROR", f"Failed to write file {on_small_disk.disk}/body: "
            "28 No space left on device") in daemon.messages()
    assert ask(root.http_port, "GET", "/api/version").status == 200
    assert len(sdk_host.requests) == 1
    filler.unlink()
    assert ask(root.http_port, *CHANGE, body=b"b" * 30000).status == 200
    assert not os.path.exists(inside(daemon, on_small_disk.disk / "body"))


@needs_root
def test_a_disk_that_becomes_read_only(root, on_small_disk, sdk_host):
    root.settings["agentDataPath"] = str(on_small_disk.disk / "body")
    root.write_hook(root.internal_hooks, "10-pass", "#!/bin/sh\nexit 0\n")
    daemon = on_small_disk()
    remount(daemon, on_small_disk.disk, "ro")
    answer = ask(root.http_port, *CHANGE, body=b"x")
    assert (answer.status, answer.reason) == INTERNAL_ERROR
    assert ("ERROR", f"Failed to write file {on_small_disk.disk}/body: "
            "30 Read-only file system") in daemon.messages()
    assert sdk_host.requests == []
    remount(daemon, on_small_disk.disk, "rw")
    assert ask(root.http_port, *CHANGE, body=b"x").status == 200


@needs_root
def test_a_log_on_a_disk_that_becomes_read_only(root, on_small_disk):
    daemon = on_small_disk(log=True)
    log = Path(inside(daemon, daemon.log))
    log.rename(log.with_name("log.1"))
    # A file that is open for writing keeps the disk writable: the daemon's own must go first.
    log.mkdir()
    daemon.hang_up()
    log.rmdir()
    remount(daemon, on_small_disk.disk, "ro")
    daemon.hang_up()
    assert_serving(root)
    assert not log.exists()
    remount(daemon, on_small_disk.disk, "rw")
    daemon.hang_up()
    # The console has it before the file.
    wait_until(lambda: "SetPairingKey" in log.read_text(), "the line in the log")


def test_a_log_that_was_removed_is_made_again(root, daemon):
    daemon.log.unlink()
    assert_serving(root)
    assert not daemon.log.exists()
    daemon.hang_up()
    assert_serving(root)
    assert "/api/mac" in daemon.log_text()


@pytest.mark.parametrize("make", [os.mkfifo, os.mkdir, lambda path: os.symlink(path, path)],
                         ids=["fifo", "directory", "loop"])
def test_a_log_that_became_something_else_is_left_out(root, daemon, make):
    daemon.log.unlink()
    make(daemon.log)
    descriptors = len(daemon.descriptors())
    for _ in range(3):
        daemon.hang_up()
        assert_serving(root)
    daemon.wait_for_no_clients()
    assert len(daemon.descriptors()) <= descriptors
    daemon.log.rmdir() if daemon.log.is_dir() else daemon.log.unlink()
    daemon.hang_up()
    assert_serving(root)
    assert "/api/mac" in daemon.log_text()


def test_a_fifo_that_nobody_empties_holds_up_nobody(root, daemon):
    daemon.log.unlink()
    os.mkfifo(daemon.log)
    reader = os.open(daemon.log, os.O_RDONLY | os.O_NONBLOCK)
    daemon.hang_up()
    # More than a pipe holds.
    for _ in range(60):
        assert ask(root.http_port, "GET", "/" + "x" * 2000).status == 404
    assert_serving(root)
    assert "SetPairingKey" in os.read(reader, 4096).decode()
    os.close(reader)


def test_hooks_that_are_removed_while_one_runs(root, make_daemon, sdk_host):
    root.settings["agentDataPath"] = str(root.agent_data)
    (root.external_hooks / "agent").rmdir()
    gate = root.directory / "gate"
    os.mkfifo(gate)
    root.write_hook(root.internal_hooks, "10-wait", f"#!/bin/sh\nread line <{gate}\n")
    daemon = make_daemon().start()
    descriptors = daemon.descriptors()
    with ThreadPoolExecutor(1) as pool:
        answer = pool.submit(ask, root.http_port, *CHANGE, body=b"x")
        # The script has been started: it is not needed any more.
        with open_fifo_for_its_reader(gate) as script:
            shutil.rmtree(root.internal_hooks)
            script.write("go on\n")
        assert answer.result().status == 200
    # The next one finds none, and is refused: nobody could say whether it may pass.
    answer = ask(root.http_port, *CHANGE, body=b"x")
    assert (answer.status, answer.reason) == INTERNAL_ERROR
    assert len(sdk_host.requests) == 1
    assert not root.agent_data.exists()
    daemon.wait_for_no_clients()
    assert len(daemon.descriptors()) <= len(descriptors) + 1  # the one to the destination
    (root.internal_hooks / "agent").mkdir(parents=True)
    assert ask(root.http_port, *CHANGE, body=b"x").status == 200


def test_router_information_that_is_rewritten_under_load(root, daemon, sdk_host):
    keys = ["b" * 100, "a" * 200]
    root.write_pairing_key(keys[1])
    daemon.hang_up()
    done = threading.Event()

    def rewrite():
        """As its owner does, under the lock; meanwhile the file is empty, and then half there, and the
        daemon has begun to ask for the lock."""
        while not done.is_set():
            for key in keys:
                mark = daemon.log.stat().st_size
                with open(root.router_info, "r+b") as file:
                    fcntl.flock(file, fcntl.LOCK_EX)
                    file.truncate(0)
                    daemon.send_signal(signal.SIGHUP)
                    daemon.wait_for_log("DEBUG: void Run: Update pairing key$", since=mark)
                    file.write(b"pairing_")
                    file.flush()
                    file.write(b"key: " + key.encode() + b"\n")
                    file.flush()
                daemon.wait_for_log("SetPairingKey: Updated", since=mark)

    def work(key):
        return ask(root.https_port, "GET", "/api/x", headers={"PairingKey": key}, tls=True).status

    writer = threading.Thread(target=rewrite)
    writer.start()
    try:
        with ThreadPoolExecutor(4) as pool:
            statuses = list(pool.map(work, keys * 100))
            assert set(pool.map(work, ["", "a" * 100, "pairing_", PAIRING_KEY])) == {417}
    finally:
        done.set()
        writer.join(DEFAULT_LIMIT)
    # One of the two, at any time.
    assert set(statuses) <= {200, 417} and 200 in statuses
    assert daemon.count_in_log("ERROR: void UpdatePairingKey") == 0
    daemon.hang_up()
    assert work(keys[1]) == 200


@pytest.mark.parametrize("text", [b"", b"pairing_k", b"pairing_key", b"pairing_key:"])
def test_router_information_that_was_cut_keeps_the_key(root, daemon, sdk_host, text):
    root.write_router_info(text)
    for _ in range(2):
        daemon.send_signal(signal.SIGHUP)
        daemon.wait_for_log("DEBUG: void Run: Update pairing key$", count=2)
    answer = ask(root.https_port, "GET", "/api/x", headers={"PairingKey": PAIRING_KEY}, tls=True)
    assert answer.status == 200


@pytest.mark.parametrize("take, give_back, error",
                         [(os.mkdir, os.rmdir, "21 Is a directory"),
                          (os.mkfifo, os.unlink, "6 No such device or address")],
                         ids=["directory", "fifo"])
def test_a_body_file_whose_place_is_taken(root, make_daemon, sdk_host, take, give_back, error):
    root.settings["agentDataPath"] = str(root.agent_data)
    root.write_hook(root.internal_hooks, "10-pass", "#!/bin/sh\nexit 0\n")
    daemon = make_daemon().start()
    take(root.agent_data)
    answer = ask(root.http_port, *CHANGE, body=b"x")
    assert (answer.status, answer.reason) == INTERNAL_ERROR
    assert ("ERROR", f"Failed to write file {root.agent_data}: {error}") in daemon.messages()
    assert sdk_host.requests == []
    give_back(root.agent_data)
    assert ask(root.http_port, *CHANGE, body=b"x").status == 200
