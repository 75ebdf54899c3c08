"""Destinations that refuse, die, lie or come back: the client always gets an answer."""

import threading
from concurrent.futures import ThreadPoolExecutor

import pytest

from sdk_rest_host import SdkRestHost
from support.clients import Client, ask
from support.destinations import (Destination, answer_bytes, answering, close_at_once,
                                  read_request)
from support.scratch_root import PAIRING_KEY
from support.waiting import DEFAULT_LIMIT, wait_until

KEY = {"PairingKey": PAIRING_KEY}
FAILED = "Destination request failed"
NO_REPLY = "Timeout in forwarding request"
LARGEST_BODY = 16 << 20

WITHOUT_REPLY = {
    "closes at once": close_at_once,
    "closes after the request": lambda connection: read_request(connection),
    "garbage": answering(b"\x16\x03\x01 garbage\r\n\r\n"),
    "text without a status": answering(b"HTTP/1.1 abc OK\r\n\r\n"),
    "another protocol": answering(b"SIP/2.0 200 OK\r\n\r\n"),
    "status 0": answering(b"HTTP/1.1 0 Nothing\r\nContent-Length: 0\r\n\r\n"),
    "half a status line": answering(b"HTTP/1.1 20", repeat=False),
    "half the headers": answering(b"HTTP/1.1 200 OK\r\nContent-Ty", repeat=False),
    "a header without a colon": answering(b"HTTP/1.1 200 OK\r\nnonsense\r\n\r\n"),
    "half the body": answering(b"HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nhalf",
                               repeat=False),
    "half a chunk": answering(b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"
                              b"64\r\nhalf", repeat=False),
    "a bad chunk": answering(b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nxyz\r\n"),
    "a negative length": answering(b"HTTP/1.1 200 OK\r\nContent-Length: -1\r\n\r\n"),
    "a large body": answering(answer_bytes(b"b" * (LARGEST_BODY + 1))),
    "a large body in chunks": answering(b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"
                                        b"1000001\r\n" + b"b" * (LARGEST_BODY + 1) +
                                        b"\r\n0\r\n\r\n"),
}


def ask_plain(root):
    return ask(root.http_port, "GET", "/api/version")


def ask_tls(root):
    return ask(root.https_port, "POST", "/api/x", b"body", KEY, tls=True)


def outcome(answer):
    return answer.status, answer.reason


@pytest.mark.parametrize("ask_it", [ask_plain, ask_tls])
def test_a_closed_port_is_a_failed_request(root, daemon, ask_it):
    mark = daemon.mark()
    for _ in range(3):
        assert outcome(ask_it(root)) == (500, FAILED)
    assert daemon.messages(mark).count(("ERROR", FAILED)) == 3


@pytest.mark.parametrize("ask_it", [ask_plain, ask_tls])
@pytest.mark.parametrize("behave", WITHOUT_REPLY.values(), ids=WITHOUT_REPLY)
def test_no_reply_that_can_be_understood_counts_as_a_timeout(root, daemon, ask_it, behave):
    with Destination(root.destination_port, behave):
        mark = daemon.mark()
        for _ in range(3):
            assert outcome(ask_it(root)) == (500, NO_REPLY)
        assert daemon.messages(mark).count(("ERROR", NO_REPLY)) == 3
    # The next one is on its own again.
    with SdkRestHost(root.destination_port):
        wait_until(lambda: ask_it(root).status == 200, "an answer from the new destination")


def test_a_failure_does_not_end_the_clients_work(root, daemon):
    with Client(root.http_port) as client:
        assert outcome(client.ask("GET", "/api/version")) == (500, FAILED)
        with SdkRestHost(root.destination_port):
            assert client.ask("GET", "/api/version").status == 200
        assert outcome(client.ask("GET", "/api/version")) in ((500, FAILED), (500, NO_REPLY))


def test_a_connection_that_was_dropped_while_idle_is_made_again(root, daemon):
    for _ in range(5):
        with Destination(root.destination_port, answering(answer_bytes(b"ok"))):
            assert ask_plain(root).status == 200
            assert ask_tls(root).status == 200
            assert daemon.has_connection_to(root.destination_port)
        # The daemon has seen the end of both connections.
        wait_until(lambda: not daemon.has_connection_to(root.destination_port),
                   "the end of the connections to the destination")


@pytest.mark.parametrize("unasked", [b"", b"HTTP/1.1 200 OK\r\nContent-Length: 6\r\n\r\nothers"])
def test_a_connection_that_was_dropped_while_a_script_ran_is_made_again(root, make_daemon, unasked):
    running, go_on = root.directory / "running", root.directory / "go_on"
    root.settings["agentDataPath"] = str(root.agent_data)
    root.write_hook(root.internal_hooks, "10-wait",
                    f"#!/bin/sh\ntouch {running}\nwhile [ ! -e {go_on} ]; do sleep 0.02; done\n")
    make_daemon().start()
    go_on.touch()
    connections = []

    def behave(connection):
        connections.append(connection)
        answering(answer_bytes(b"own"))(connection)

    with Destination(root.destination_port, behave) as destination, ThreadPoolExecutor(1) as pool:
        assert ask_plain(root).status == 200
        for path in (running, go_on):
            path.unlink()
        answer = pool.submit(ask_plain, root)
        wait_until(running.exists, "the script")
        if unasked:
            connections[0].sendall(unasked)
        destination.drop()
        go_on.touch()
        assert (answer.result().status, answer.result().body) == (200, b"own")
        assert destination.accepted == 2


def test_a_destination_that_was_restarted_is_found_on_the_same_port(root, daemon):
    for _ in range(5):
        with SdkRestHost(root.destination_port):
            # The first request may still meet the connection of the one before.
            wait_until(lambda: ask_plain(root).status == 200, "an answer")
            wait_until(lambda: ask_tls(root).status == 200, "an answer")


@pytest.mark.parametrize("tls", [False, True])
def test_every_client_gets_an_answer_when_the_destination_dies_mid_answer(root, daemon, tls):
    clients, rounds = 20, 5
    half = answering(b"HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nhalf", repeat=False)

    def work(_):
        return [outcome(ask_tls(root) if tls else ask_plain(root)) for _ in range(rounds)]

    with Destination(root.destination_port, half), ThreadPoolExecutor(clients) as pool:
        results = [result for results in pool.map(work, range(clients)) for result in results]
    assert results == [(500, NO_REPLY)] * (clients * rounds)
    with SdkRestHost(root.destination_port):
        wait_until(lambda: ask_plain(root).status == 200, "an answer")


def test_every_client_gets_an_answer_when_every_other_answer_breaks_off(root, daemon):
    numbers = iter(range(1000000))
    lock = threading.Lock()

    def every_other(connection):
        while read_request(connection):
            with lock:
                number = next(numbers)
            if number % 2:
                connection.sendall(b"HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nhalf")
                return
            connection.sendall(answer_bytes(b"whole"))

    def work(number):
        ask_it = ask_tls if number % 2 else ask_plain
        return [outcome(ask_it(root)) for _ in range(10)]

    with Destination(root.destination_port, every_other), ThreadPoolExecutor(16) as pool:
        results = [result for results in pool.map(work, range(16)) for result in results]
    assert len(results) == 160
    assert set(results) == {(200, "OK"), (500, NO_REPLY)}


def test_requests_wait_for_a_slow_destination_and_for_each_other(root, daemon):
    go_on = threading.Event()

    def slow(connection):
        while request := read_request(connection):
            go_on.wait(DEFAULT_LIMIT)
            connection.sendall(answer_bytes(request.split(b" ")[1]))

    uris = ["/api/version", "/api/1/router-info", "/api/2/router-info"]
    with Destination(root.destination_port, slow) as destination, ThreadPoolExecutor(3) as pool:
        mark = daemon.mark()
        answers = [pool.submit(ask, root.http_port, "GET", uri) for uri in uris]
        daemon.wait_for_log("INFO: .*: GET /api/", since=mark, count=3)
        destination.wait_for_connections(1)
        # What needs no destination is not held up.
        assert ask(root.http_port, "GET", "/api/x").status == 417
        assert not any(answer.done() for answer in answers)
        go_on.set()
        assert [answer.result().body.decode() for answer in answers] == uris


def test_a_slow_destination_of_one_listener_does_not_hold_up_the_other(root, daemon):
    go_on = threading.Event()

    def slow_for_the_plain_one(connection):
        while request := read_request(connection):
            if b"/api/version" in request:
                go_on.wait(DEFAULT_LIMIT)
            connection.sendall(answer_bytes(b"ok"))

    with Destination(root.destination_port, slow_for_the_plain_one) as destination, \
            ThreadPoolExecutor(1) as pool:
        plain = pool.submit(ask_plain, root)
        destination.wait_for_connections(1)
        assert ask_tls(root).status == 200
        assert not plain.done()
        go_on.set()
        assert plain.result().status == 200


def test_an_answer_that_comes_byte_by_byte_is_put_together(root, daemon):
    answer = answer_bytes(b"piece by piece")

    def drip(connection):
        while read_request(connection):
            for byte in answer:
                connection.sendall(bytes([byte]))

    with Destination(root.destination_port, drip):
        for ask_it in (ask_plain, ask_tls):
            assert ask_it(root).body == b"piece by piece"
