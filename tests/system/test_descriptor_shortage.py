"""No more file descriptors to be had: requests that have come in are answered all the same, and what
was refused comes into service as soon as there are some."""

import subprocess
import threading
from concurrent.futures import ThreadPoolExecutor
from contextlib import contextmanager

import pytest

from support.clients import Client, ask
from support.destinations import Destination, answer_bytes, read_request
from support.waiting import DEFAULT_LIMIT, wait_until

REFUSED = r"ERROR: static void tavlo::ListeningSockets::PauseAccepting: Failed to accept a connection: 24 "

# libevent tells no difference between this and a destination that hangs up.
NOT_FORWARDED = (500, "Timeout in forwarding request")


@contextmanager
def shortage(daemon):
    """Nothing can be opened: all descriptors below the limit are in use."""
    def set_limit(limit):
        subprocess.run(["prlimit", "--pid", str(daemon.pid), f"--nofile={limit}:"], check=True)
    set_limit(3)
    yield
    set_limit(1024)


@contextmanager
def accepted_client(root, daemon):
    before = len(daemon.client_connections())
    with Client(root.http_port) as client:
        client.connection.connect()
        wait_until(lambda: len(daemon.client_connections()) > before, "the client to be accepted")
        yield client


def outcome(answer):
    return answer.status, answer.reason


def test_a_request_that_cannot_be_forwarded_is_answered(root, daemon, sdk_host):
    with accepted_client(root, daemon) as client, shortage(daemon):
        assert outcome(client.ask("GET", "/api/version")) == NOT_FORWARDED
    assert ask(root.http_port, "GET", "/api/version").status == 200


def test_requests_that_wait_for_a_connection_are_answered(root, daemon):
    go_on = threading.Event()

    def answer_once(connection):
        read_request(connection)
        go_on.wait(DEFAULT_LIMIT)
        connection.sendall(answer_bytes(b"ok", headers=b"Connection: close\r\n"))

    with Destination(root.destination_port, answer_once), ThreadPoolExecutor(3) as pool, \
            accepted_client(root, daemon) as first, accepted_client(root, daemon) as second, \
            accepted_client(root, daemon) as third:
        answers = []
        for client in (first, second, third):
            answers.append(pool.submit(client.ask, "GET", "/api/version"))
            daemon.wait_for_log("INFO: .*: GET /api/version", count=len(answers))
        with shortage(daemon):
            go_on.set()
            assert [outcome(answer.result()) for answer in answers] == [
                (200, "OK"), NOT_FORWARDED, NOT_FORWARDED]
        assert ask(root.http_port, "GET", "/api/version").status == 200


@pytest.mark.parametrize("tls", [False, True])
def test_a_listener_that_cannot_accept_rests_and_takes_the_client_later(root, daemon, tls):
    port = root.https_port if tls else root.http_port
    with ThreadPoolExecutor(1) as pool:
        with shortage(daemon):
            waiting = pool.submit(ask, port, "GET", "/elsewhere", tls=tls)
            daemon.wait_for_log(REFUSED, count=3)
            # One line for each second, not one for each turn of the loop.
            assert daemon.count_in_log(REFUSED) < 10
            assert not waiting.done()
        assert waiting.result().status == 404
