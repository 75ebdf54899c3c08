"""A destination that ends its connection when it likes, with or without a word about it: no client
gets to know, and no request arrives twice that must not."""

import threading
import time
from collections import Counter
from concurrent.futures import ThreadPoolExecutor

import pytest

from support.clients import Client, ask
from support.destinations import Destination, Noting, answer_bytes
from support.scratch_root import PAIRING_KEY
from support.waiting import DEFAULT_LIMIT, wait_until

KEY = {"PairingKey": PAIRING_KEY}
NO_REPLY = (500, "Timeout in forwarding request")
CLIENTS, REQUESTS = 8, 200

HTTP_1_0 = answer_bytes(b"ok").replace(b"HTTP/1.1", b"HTTP/1.0")
KEPT_1_0 = answer_bytes(b"ok", headers=b"Connection: keep-alive\r\n").replace(b"HTTP/1.1",
                                                                             b"HTTP/1.0")
CLOSE = answer_bytes(b"ok", headers=b"Connection: close\r\n")
CLOSE_AMONG_OTHERS = answer_bytes(b"ok", headers=b"Connection: x, Close\r\n")
SILENT = answer_bytes(b"ok")


def closing(answer, delay=0.0):
    """Ends the connection so many seconds after each answer."""

    def deal(connection, *_):
        connection.sendall(answer)
        time.sleep(delay)

    return deal


def closing_at_the_second(answer):
    """Ends the connection when a second request has come over it, and answers none of that."""

    def deal(connection, _, index):
        if index == 0:
            connection.sendall(answer)
        return index == 0

    return deal


def keeping(answer):
    def deal(connection, *_):
        connection.sendall(answer)
        return True

    return deal


WAYS = {
    "HTTP/1.0": closing(HTTP_1_0),
    "HTTP/1.0, 1 ms later": closing(HTTP_1_0, 0.001),
    "HTTP/1.0, by the client": keeping(HTTP_1_0),
    "HTTP/1.0 without a length": closing(b"HTTP/1.0 200 OK\r\n\r\nok"),
    "silently": closing(SILENT),
    "silently, 1 ms later": closing(SILENT, 0.001),
    "silently, 5 ms later": closing(SILENT, 0.005),
    "silently, at the next request": closing_at_the_second(SILENT),
    "said": closing(CLOSE),
    "said, 5 ms later": closing(CLOSE, 0.005),
    "said, by the client": keeping(CLOSE),
}


def ask_many(root, tls, method, requests=REQUESTS, body=None):
    """So many requests of several clients at a time; returns how often which status came.
    `body(number)` is what a request brings."""
    port = root.https_port if tls else root.http_port
    uri = "/api/x" if tls else "/api/version"

    def work(numbers):
        with Client(port, tls) as client:
            return [client.ask(method, uri, body and body(number), KEY) for number in numbers]

    with ThreadPoolExecutor(CLIENTS) as pool:
        parts = pool.map(work, [range(first, requests, CLIENTS) for first in range(CLIENTS)])
        answers = [answer for part in parts for answer in part]
    assert {answer.body for answer in answers if answer.status == 200} <= {b"ok"}
    return Counter(answer.status for answer in answers)


@pytest.mark.parametrize("method, tls", [("GET", False), ("GET", True), ("PUT", True),
                                         ("DELETE", True)])
@pytest.mark.parametrize("way", WAYS.values(), ids=WAYS)
def test_each_request_that_may_be_repeated_is_answered(root, daemon, way, method, tls):
    with Destination(root.destination_port, Noting(way)):
        assert ask_many(root, tls, method) == {200: REQUESTS}


@pytest.mark.parametrize("method", ["POST", "PATCH"])
@pytest.mark.parametrize("way", WAYS)
def test_no_change_arrives_twice(root, daemon, way, method):
    noting = Noting(WAYS[way])
    with Destination(root.destination_port, noting):
        statuses = ask_many(root, True, method, body=lambda number: b"%d" % number)
    assert set(statuses) <= {200, 500}
    arrived = Counter(noting.bodies)
    assert set(arrived.values()) == {1}
    # Whatever was answered by the destination has arrived; the others may have.
    assert statuses[200] <= len(arrived) <= REQUESTS
    # Only an end that was not said before can cost an answer.
    assert way.startswith("silently") or statuses[200] == REQUESTS


@pytest.mark.parametrize("method", ["GET", "PUT", "DELETE"])
@pytest.mark.parametrize("way", WAYS.values(), ids=WAYS)
def test_what_may_be_repeated_is_repeated_once(root, daemon, way, method):
    noting = Noting(way)
    with Destination(root.destination_port, noting):
        assert ask_many(root, True, method, body=lambda number: b"%d" % number) == {200: REQUESTS}
    arrived = Counter(noting.bodies)
    assert len(arrived) == REQUESTS
    assert max(arrived.values()) <= 2


def ends_with(*ends):
    """Serves the first request of the first connection; what becomes of each later request is told
    by the one of `ends` at its place: bytes that are sent before the connection ends, or None for
    an answer."""
    left = list(ends)

    def deal(connection, number, index):
        end = None if (number, index) == (0, 0) else left.pop(0)
        connection.sendall(SILENT if end is None else end)
        return end is None

    return Noting(deal)


def outcome(answer):
    return answer.status, answer.reason


def first_and_second(root, method, noting):
    """Two requests, the second over a connection that has served."""
    with Destination(root.destination_port, noting):
        assert ask(root.https_port, "GET", "/api/x", headers=KEY, tls=True).status == 200
        return outcome(ask(root.https_port, method, "/api/x", b"2", KEY, tls=True))


@pytest.mark.parametrize("method", ["GET", "PUT", "DELETE"])
def test_a_request_whose_connection_ends_is_sent_over_a_fresh_one(root, daemon, method):
    noting = ends_with(b"", None)
    assert first_and_second(root, method, noting) == (200, "OK")
    assert noting.connections == [0, 0, 1]
    assert noting.bodies == [b"", b"2", b"2"]
    assert daemon.count_in_log("ERROR: .*: Timeout in forwarding request$") == 0


@pytest.mark.parametrize("method", ["POST", "PATCH"])
def test_a_change_whose_connection_ends_is_not_sent_again(root, daemon, method):
    noting = ends_with(b"", None)
    assert first_and_second(root, method, noting) == NO_REPLY
    assert noting.connections == [0, 0]


def test_a_request_is_not_sent_a_third_time(root, daemon):
    noting = ends_with(b"", b"", None)
    assert first_and_second(root, "GET", noting) == NO_REPLY
    assert noting.connections == [0, 0, 1]


@pytest.mark.parametrize("begun", [b"H", b"HTTP/1.1 200 OK\r\n", b"HTTP/1.1 100 Continue\r\n\r\n",
                                   SILENT[:-1]],
                         ids=["a letter", "the status", "an interim answer", "all but a byte"])
def test_a_request_whose_answer_has_begun_is_not_sent_again(root, daemon, begun):
    noting = ends_with(begun, None)
    assert first_and_second(root, "GET", noting) == NO_REPLY
    assert noting.connections == [0, 0]


def test_a_request_over_a_connection_that_never_served_is_not_sent_again(root, daemon):
    noting = Noting(lambda *_: False)
    with Destination(root.destination_port, noting):
        for _ in range(3):
            assert outcome(ask(root.https_port, "GET", "/api/x", headers=KEY, tls=True)) == NO_REPLY
    assert noting.connections == [0, 1, 2]


def test_a_request_that_waits_behind_a_lost_one_is_sent_once(root, daemon):
    """The two wait together; what happens to the first one's connection is no concern of the
    second one's."""
    come, go_on = threading.Event(), threading.Event()

    def deal(connection, number, index):
        if (number, index) == (0, 1):
            come.set()
            go_on.wait(DEFAULT_LIMIT)
            return False
        connection.sendall(SILENT)
        return True

    noting = Noting(deal)
    with Destination(root.destination_port, noting), ThreadPoolExecutor(2) as pool:
        ask(root.https_port, "GET", "/api/x", headers=KEY, tls=True)
        try:
            lost = pool.submit(ask, root.https_port, "POST", "/api/x", b"lost", KEY, tls=True)
            assert come.wait(DEFAULT_LIMIT)
            mark = daemon.mark()
            waiting = pool.submit(ask, root.https_port, "POST", "/api/x", b"waits", KEY, tls=True)
            daemon.wait_for_log("INFO: .*: POST /api/x$", since=mark)
        finally:
            go_on.set()
        assert outcome(lost.result()) == NO_REPLY
        assert outcome(waiting.result()) == (200, "OK")
    assert noting.bodies == [b"", b"lost", b"waits"]
    assert noting.connections == [0, 0, 1]


@pytest.mark.parametrize("answer, connections", [
    (HTTP_1_0, 10), (CLOSE, 10), (CLOSE_AMONG_OTHERS, 10), (KEPT_1_0, 1), (SILENT, 1)],
    ids=["HTTP/1.0", "close", "close among others", "HTTP/1.0 keep-alive", "HTTP/1.1"])
@pytest.mark.parametrize("tls", [False, True])
def test_a_connection_is_used_as_long_as_its_answers_say(root, daemon, answer, connections, tls):
    """The destination ends none by itself: a new one is the daemon's own doing."""
    with Destination(root.destination_port, Noting(keeping(answer))) as destination:
        for _ in range(10):
            port, uri = (root.https_port, "/api/x") if tls else (root.http_port, "/api/version")
            assert ask(port, "GET", uri, headers=KEY, tls=tls).status == 200
        assert destination.accepted == connections


@pytest.mark.parametrize("method", ["POST", "PATCH"])
def test_a_change_after_the_end_of_the_connection_arrives(root, daemon, method):
    noting = Noting(closing(SILENT))
    with Destination(root.destination_port, noting):
        for number in range(20):
            answer = ask(root.https_port, method, "/api/x", b"%d" % number, KEY, tls=True)
            assert outcome(answer) == (200, "OK")
            wait_until(lambda: not daemon.has_connection_to(root.destination_port),
                       "the end of the connection")
    assert noting.bodies == [b"%d" % number for number in range(20)]
