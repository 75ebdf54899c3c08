"""No more descriptors, at each place where one is opened: that request fails, and nothing else."""

import re
import signal

import pytest

from support.clients import Client, ask
from support.daemon import IS_WITH_MUSL
from support.limits import descriptors_left, set_limit
from support.scratch_root import PAIRING_KEY
from support.waiting import EMULATOR, SANITIZER, wait_until

KEY = {"PairingKey": PAIRING_KEY}
NO_MORE = "No file descriptors available" if IS_WITH_MUSL else "Too many open files"
TOO_MANY = f"24 {NO_MORE}"
INTERNAL_ERROR = (500, "Internal error")


@pytest.fixture
def client(root, daemon):
    """One that was accepted while there were descriptors."""
    with Client(root.http_port) as made:
        assert made.ask("GET", "/api/mac").status == 200
        yield made


def outcome(answer):
    return answer.status, answer.reason


def test_the_device_list_cannot_be_opened(root, daemon, client):
    before = daemon.descriptors()
    for left in (0, 1):  # one for the lock, one to read
        mark = daemon.mark()
        with descriptors_left(daemon, left):
            assert outcome(client.ask("GET", "/api/mac")) == INTERNAL_ERROR
        action = ("lock", "read")[left]
        daemon.wait_for_log(f"ERROR: .*: Failed to {action} file {root.device_list}: {TOO_MANY}$",
                            since=mark)
        with Client(root.http_port) as next_client:
            client.connection = next_client.connection
            assert client.ask("GET", "/api/mac").status == 200
            client.close()
        daemon.wait_for_no_clients()
        client.connection.connect()
        assert client.ask("GET", "/api/mac").status == 200
    assert daemon.descriptors() == before


def test_the_router_information_cannot_be_opened(root, daemon, sdk_host):
    root.write_pairing_key("another")
    mark = daemon.mark()
    with descriptors_left(daemon, 1):
        daemon.send_signal(signal.SIGHUP)
        daemon.wait_for_log(f"ERROR: void UpdatePairingKey: Failed to read file {root.router_info}: "
                            f"{TOO_MANY}$", since=mark)
    # The key from before stays in force, and the next SIGHUP finds the other one.
    assert ask(root.https_port, "GET", "/api/x", headers=KEY, tls=True).status == 200
    daemon.send_signal(signal.SIGHUP)
    daemon.wait_for_log(r"Updated: 'ano\.\.\.'$", since=mark)


def test_the_log_cannot_be_opened_again(root, daemon, client):
    before = len(daemon.descriptors())
    set_limit(daemon, "nofile", 3)
    daemon.hang_up()
    assert client.ask("GET", "/elsewhere").status == 404
    assert daemon.log_text().endswith("DEBUG: void Run: HUP\n")
    set_limit(daemon, "nofile", 1024)
    assert len(daemon.descriptors()) < before
    daemon.hang_up()
    mark = daemon.mark()
    assert ask(root.http_port, "GET", "/logged-again").status == 404
    daemon.wait_for_log("GET /logged-again$", since=mark)


@pytest.fixture
def hooked(root, make_daemon, sdk_host):
    root.settings["agentDataPath"] = str(root.agent_data)
    (root.external_hooks / "agent").rmdir()
    root.write_hook(root.internal_hooks, "10-pass", "#!/bin/sh\nexit 0\n")
    return make_daemon().start()


# For a request with a body: the body file, the directory's list, six for three pipes. Each is
# closed before the next is opened, but for the pipes.
@pytest.mark.parametrize("left, line", [
    (0, "Failed to write file {data}: " + TOO_MANY),
    (1, f"pipe2 failed: {NO_MORE}"), (2, f"pipe2 failed: {NO_MORE}"),
    (3, f"pipe2 failed: {NO_MORE}"), (5, f"pipe2 failed: {NO_MORE}")])
def test_the_body_file_and_the_pipes_of_a_hook(root, hooked, sdk_host, left, line):
    with Client(root.http_port) as client:
        assert client.ask("PATCH", "/api/1/router-ref", b"x").status == 200
        before, mark = hooked.descriptors(), hooked.mark()
        sdk_host.requests.clear()
        with descriptors_left(hooked, left):
            assert outcome(client.ask("PATCH", "/api/1/router-ref", b"x")) == INTERNAL_ERROR
        expected = re.escape(line.format(data=root.agent_data))
        hooked.wait_for_log(f"ERROR: .*: {expected}$", since=mark)
        assert sdk_host.requests == []
        assert not root.agent_data.exists()
        # That answer has ended the connection.
        assert set(hooked.descriptors()) <= set(before)
        assert client.ask("PATCH", "/api/1/router-ref", b"x").status == 200


def test_the_list_of_hooks(root, hooked, sdk_host):
    with Client(root.http_port) as client:
        assert client.ask("GET", "/api/version").status == 200
        with descriptors_left(hooked, 0):
            assert outcome(client.ask("GET", "/api/version")) == INTERNAL_ERROR
    hooked.wait_for_log("ERROR: .*: Failed to invoke agent hook: failed to list directory ")
    assert len(sdk_host.requests) == 1


def test_the_certificate_cannot_be_opened(root, daemon, sdk_host):
    # The one that is left is the connection's own.
    with descriptors_left(daemon, 1):
        answer = ask(root.https_port, "GET", "/api/x")
        assert outcome(answer) == (417, "Pairing key not as expected")
        daemon.wait_for_log("ERROR: .*: Failed in loading certificate chain file: ")
    assert ask(root.https_port, "GET", "/api/x", headers=KEY, tls=True).status == 200


def test_a_start_with_few_descriptors(root, make_daemon, sdk_host):
    if SANITIZER or EMULATOR:
        pytest.skip("a sanitizer and an emulator need descriptors of their own")
    ends = starts = 0
    for limit in range(4, 24):
        (root.directory / "log").unlink(missing_ok=True)
        daemon = make_daemon(prefix=["prlimit", f"--nofile={limit}:"])
        daemon.launch()
        wait_until(lambda: daemon.process.poll() is not None or
                   "UpdateLanAddress" in daemon.log_text(path=daemon.console), "a start or an end")
        if daemon.is_running():
            starts += 1
            daemon.stop()
            continue
        ends += 1
        console = daemon.log_text(path=daemon.console)
        if daemon.wait_for_exit() == 127:
            assert "error while loading shared libraries" in console
        else:
            assert daemon.process.returncode == 1
            assert re.search(r"ERROR: .*\b24\b", console), console
    assert ends >= 5 and starts >= 5
