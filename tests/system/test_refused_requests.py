"""Requests that somebody before or behind the daemon may read otherwise: refused before libevent
reads them, whatever it would make of them, over both listeners and however they are cut."""

import re
import threading
import time

import pytest

from support.clients import ask, connect, read_to_end
from support.destinations import Destination, answer_bytes
from support.raw_requests import RequestRecorder
from support.scratch_root import PAIRING_KEY
from support.waiting import DEFAULT_LIMIT, wait_until

KEY = b"PairingKey: " + PAIRING_KEY.encode() + b"\r\n"
START = b"PATCH /api/1/router-ref HTTP/1.1\r\nHost: x\r\n"
# What would be let in, if it were looked at as a request.
ALLOWED = b"GET /api/version HTTP/1.1\r\nHost: x\r\n" + KEY + b"\r\n"
LENGTH = b"Content-Length: %d\r\n" % len(ALLOWED)
CHUNKED = b"Transfer-Encoding: chunked\r\n"
CHUNKS = START + KEY + CHUNKED + b"\r\n"
LAST = b"0\r\n\r\n"

BLANK = "A blank in a header's name"
FOLD = "A header line that begins with a blank"
CONTROL = "A control character in a header"
CONTROL_IN_NAME = "A control character in a header's name"
NUMBER = "A Content-Length that is no number of at most 18 digits"
WORDS = "More than one word about the length of the body"
ENCODING = "A Transfer-Encoding other than chunked"
BESIDE = "Content-Length beside Transfer-Encoding"
NO_VERSION = "A request line without a version of HTTP/1"
NO_BODY = "A body with a method that has none"

# Every request has the key and would be let in, or has it only in the form that is shown.
HEADS = {
    "a blank before the key's colon": (START + KEY.replace(b":", b" :") + b"\r\n", BLANK),
    "a tab before a colon": (START + KEY + b"X\t: y\r\n\r\n", BLANK),
    "a blank before the first header": (START.split(b"\n")[0] + b"\n " + KEY + b"\r\n", FOLD),
    "a blank before the key": (START + b" " + KEY + b"\r\n", FOLD),
    "a folded key": (START + KEY.replace(b" ", b"\r\n ") + b"\r\n", FOLD),
    "a fold behind the key": (START + KEY + b"\tx\r\n\r\n", FOLD),
    "a NUL before the key": (START + b"X: y\0\r" + KEY + b"\r\n", CONTROL),
    "a NUL behind the key": (START + KEY[:-2] + b"\0x\r\n\r\n", CONTROL),
    "a NUL in the key's name": (START + KEY.replace(b":", b"\0:") + b"\r\n", CONTROL_IN_NAME),
    "a carriage return before the key": (START + b"X: y\r" + KEY + b"\r\n", CONTROL),
    "a carriage return before a blank": (START + KEY + b"X: y\r z\r\n\r\n", CONTROL),
    "a control character in a value": (START + KEY + b"X: \x1b[31m\r\n\r\n", CONTROL),
    "a DEL in a value": (START + KEY + b"X: \x7f\r\n\r\n", CONTROL),
    "a NUL in the first line": (ALLOWED.replace(b"version", b"version\0x"),
                                "A NUL in the request line"),
    "a carriage return in the version": (ALLOWED.replace(b"HTTP/", b"HTTP/\r"), NO_VERSION),
    "a sign in the version": (ALLOWED.replace(b"HTTP/", b"HTTP/+"), NO_VERSION),
    "chunks in HTTP/1.0": (CHUNKS.replace(b"1.1", b"1.0") + LAST,
                           "Chunks in a version of HTTP that has none"),
    "no colon": (START + KEY + b"X\r\n\r\n", "A header without a colon"),
    "no name": (START + KEY + b": y\r\n\r\n", "A header without a name"),
    "no token": (START + KEY + b"X(y): z\r\n\r\n", "A character that no header's name may have"),
    "two keys": (START + KEY + KEY + b"\r\n", "Two PairingKey"),
    "two lengths": (START + KEY + b"Content-Length: 0\r\n" + LENGTH + b"\r\n", "Two Content-Length"),
    "a length twice": (START + KEY + LENGTH + LENGTH + b"\r\n", "Two Content-Length"),
    "two lengths in one line": (START + KEY + b"Content-Length: 0, 5\r\n\r\n", WORDS),
    "a length with a sign": (START + KEY + b"Content-Length: +5\r\n\r\n", NUMBER),
    "a length that wraps around": (START + KEY + b"Content-Length: 18446744073709551621\r\n\r\n", NUMBER),
    "a length and chunks": (START + KEY + b"Content-Length: 5\r\n" + CHUNKED + b"\r\n" + LAST, BESIDE),
    "chunks and a length": (START + KEY + CHUNKED + b"Content-Length: 5\r\n\r\n" + LAST, BESIDE),
    "chunks twice": (START + KEY + CHUNKED * 2 + b"\r\n" + LAST, "Two Transfer-Encoding"),
    "another encoding": (START + KEY + b"Transfer-Encoding: gzip\r\n\r\n", ENCODING),
    "chunks behind a tab": (START + KEY + b"Transfer-Encoding:\tchunked\r\n\r\n" + LAST, ENCODING),
    "a list of encodings": (START + KEY + b"Transfer-Encoding: gzip, chunked\r\n\r\n" + LAST, WORDS),
    "HEAD with a length": (b"HEAD /api/version HTTP/1.1\r\n" + KEY + LENGTH + b"\r\n", NO_BODY),
    "CONNECT with a length": (b"CONNECT x:1 HTTP/1.1\r\n" + KEY + LENGTH + b"\r\n", NO_BODY),
    "CONNECT with a blank before a colon": (b"CONNECT x:1 HTTP/1.1\r\nX : y\r\n\r\n", BLANK),
    "an unknown method with chunks": (b"FOO / HTTP/1.1\r\n" + CHUNKED + b"\r\n" + LAST, NO_BODY),
}
BODIES = {
    "the key in the trailer": (START + CHUNKED + b"\r\n1\r\na\r\n0\r\n" + KEY + b"\r\n",
                               "A trailer field"),
    "a length in the trailer": (CHUNKS + b"0\r\n" + LENGTH + b"\r\n", "A trailer field"),
    "a chunk's length with a sign": (CHUNKS + b"+1\r\na\r\n" + LAST,
                                     "The length of a chunk is no hexadecimal number"),
    "a chunk's length with 0x": (CHUNKS + b"0x1\r\na\r\n" + LAST,
                                 "The length of a chunk is no hexadecimal number"),
    "an empty line before a chunk": (CHUNKS + b"\r\n1\r\na\r\n" + LAST,
                                     "The length of a chunk has no digits or more than 15"),
    "a chunk that goes on": (CHUNKS + b"1\r\nab\r\n" + LAST, "A chunk is longer than its length"),
    "a chunk without an end": (CHUNKS + b"5\r\nhello" + LAST, "A chunk is longer than its length"),
    "a long line of a chunk": (CHUNKS + b"0" * 2000 + b"\r\n\r\n",
                               "The line of a chunk's length is too long"),
}
REFUSED = {name: (*row, b"400 Bad Request") for name, row in HEADS.items()} | {
    name: (*row, b"413 Request Entity Too Large") for name, row in BODIES.items()}


def port_of(root, tls):
    return root.https_port if tls else root.http_port


def send_in_pieces(connection, pieces):
    """Pieces that the daemon reads one by one, as far as that can be had."""
    try:
        for piece in pieces:
            connection.sendall(piece)
            time.sleep(0)
    except OSError:
        pass  # it has hung up


def cuts(request):
    middle = request.find(b"\r\n\r\n") + 4
    places = sorted({1, len(START), middle - 3, middle - 1, middle, middle + 5, len(request) - 1})
    whole = [[request]]
    in_two = [[request[:place], request[place:]] for place in places if 0 < place < len(request)]
    return whole + in_two + [[bytes([byte]) for byte in request]]


@pytest.mark.parametrize("request_bytes, fault, answer", REFUSED.values(), ids=REFUSED)
@pytest.mark.parametrize("tls", [False, True])
def test_a_request_with_two_readings_is_refused(shared, tls, request_bytes, fault, answer):
    received = len(shared.sdk_host.requests)
    for pieces in cuts(request_bytes):
        mark = shared.mark()
        with connect(port_of(shared.root, tls), tls) as client:
            # What follows must not become a request either.
            send_in_pieces(client, [*pieces, ALLOWED])
            if not request_bytes.startswith(b"CONNECT "):
                assert read_to_end(client).startswith(b"HTTP/1.1 " + answer + b"\r\n"), pieces
            # Before it hangs up: with a ticket unread, that is a reset.
            shared.wait_for_log(f"INFO: .*: A request of 127.0.0.1 is refused: {re.escape(fault)}$",
                                since=mark)
        assert [text for _, text in shared.messages(mark) if "/api/" in text] == [], pieces
    assert len(shared.sdk_host.requests) == received


CONNECTS = {
    "that has two readings": b"CONNECT x:1 HTTP/1.1\r\nX : y\r\n\r\n",
    "to no port": b"CONNECT x:y HTTP/1.1\r\nX: y\r\n\r\n",
    "with a large head": b"CONNECT x:1 HTTP/1.1\r\nX: " + b"y" * 70000 + b"\r\n\r\n",
}


def be_served(client):
    """A connection's first request finds it in another state than a later one."""
    client.sendall(ALLOWED)
    answer = b""
    while not answer.endswith(b"}\n"):
        part = client.recv(65536)
        assert part, answer
        answer += part
    assert answer.startswith(b"HTTP/1.1 200 OK\r\n")


@pytest.mark.parametrize("refused", CONNECTS.values(), ids=CONNECTS)
@pytest.mark.parametrize("earlier", [0, 1, 2])
@pytest.mark.parametrize("tls", [False, True])
def test_a_refused_connect_is_not_the_way_for_another_request(shared, tls, earlier, refused):
    """libevent does not end the connection of a CONNECT, whatever it answered."""
    with connect(port_of(shared.root, tls), tls) as client:
        for _ in range(earlier):
            be_served(client)
        received = len(shared.sdk_host.requests)
        mark = shared.mark()
        client.sendall(refused)
        answer = b""
        while b"</HTML>" not in answer:
            answer += client.recv(65536)
        assert answer.startswith(b"HTTP/1.1 400 ")
        # Two readings again, and none.
        for request in (ALLOWED.replace(b"Host:", b"Host :"), ALLOWED) * 3:
            send_in_pieces(client, [request])
        # With another one it is seen that these have been read.
        assert ask(shared.root.http_port, "GET", "/nowhere").status == 404
        assert [text for _, text in shared.messages(mark) if "/api/" in text] == []
    assert len(shared.sdk_host.requests) == received


@pytest.mark.parametrize("refused", CONNECTS.values(), ids=CONNECTS)
@pytest.mark.parametrize("tls", [False, True])
def test_nor_is_one_that_came_with_the_request_before(shared, tls, refused):
    with connect(port_of(shared.root, tls), tls) as client:
        client.sendall(ALLOWED + refused)
        answer = b""
        while b"</HTML>" not in answer:
            answer += client.recv(65536)
        received = len(shared.sdk_host.requests)
        assert answer.startswith(b"HTTP/1.1 200 OK\r\n") and b"HTTP/1.1 400 " in answer
        for _ in range(3):
            send_in_pieces(client, [ALLOWED])
        assert ask(shared.root.http_port, "GET", "/nowhere").status == 404
    assert len(shared.sdk_host.requests) == received


@pytest.mark.parametrize("earlier", [0, 1, 2])
@pytest.mark.parametrize("tls", [False, True])
def test_what_follows_an_answer_of_the_librarys_own_is_read_along_with(shared, tls, earlier):
    with connect(port_of(shared.root, tls), tls) as client:
        for _ in range(earlier):
            be_served(client)
        mark = shared.mark()
        client.sendall(b"CONNECT x:1 HTTP/1.1\r\n\r\n" + ALLOWED.replace(b"Host:", b"Host :"))
        shared.wait_for_log("INFO: .*: A request of 127.0.0.1 is refused: " + BLANK, since=mark)
        assert [text for _, text in shared.messages(mark) if "/api/" in text] == []


EXPECTING = ALLOWED.replace(KEY, KEY + b"Expect: 100-continue\r\nContent-Length: 4\r\n")
IN_TURN = {name: REFUSED[name] for name in (
    "a blank before the key's colon", "a NUL before the key", "a length and chunks", "two keys",
    "the key in the trailer", "a chunk that goes on", "CONNECT with a blank before a colon")}


@pytest.mark.parametrize("request_bytes, _, answer", IN_TURN.values(), ids=IN_TURN)
@pytest.mark.parametrize("first", [ALLOWED, EXPECTING + b"body"], ids=["plain", "expecting"])
@pytest.mark.parametrize("tls", [False, True])
def test_it_is_refused_in_its_turn(root, daemon, tls, first, request_bytes, _, answer):
    """Behind a request that waits for its answer, in one piece with it or in a later one."""
    for pieces in ([first + request_bytes], [first, request_bytes], [first[:-2], first[-2:] +
                   request_bytes[:9], request_bytes[9:]]):
        go_on = threading.Event()
        recorder = RequestRecorder(answer_bytes(b"ok"))

        def answer_later(connection):
            go_on.wait(DEFAULT_LIMIT)
            recorder(connection)

        with Destination(root.destination_port, answer_later) as destination:
            with connect(port_of(root, tls), tls) as client:
                send_in_pieces(client, pieces)
                destination.wait_for_connections(1)
                go_on.set()
                client.settimeout(DEFAULT_LIMIT)
                data = b""
                while data.count(b"HTTP/1.1 ") - data.count(b"HTTP/1.1 100 ") < 2:
                    part = client.recv(65536)
                    assert part, data
                    data += part
        data = data.replace(b"HTTP/1.1 100 Continue\r\n\r\n", b"")
        assert data.startswith(b"HTTP/1.1 200 OK\r\n")
        assert b"\r\n\r\nokHTTP/1.1 " + answer in data
        assert len(recorder.take()) == 1
        wait_until(lambda: not daemon.has_connection_to(root.destination_port), "a new start")


GOOD = {
    "bare line feeds": ALLOWED.replace(b"\r\n", b"\n"),
    "blanks around values": ALLOWED.replace(b"\r\n", b" \t\r\n").replace(b" HTTP/1.1 \t", b" HTTP/1.1")
                            .removesuffix(b" \t\r\n") + b"\r\n",
    "HTTP/1.0": ALLOWED.replace(b"1.1", b"1.0"),
    "a length": ALLOWED.replace(KEY, KEY + b"Content-Length: 4\r\n") + b"body",
    "chunks": ALLOWED.replace(KEY, KEY + b"TRANSFER-encoding: Chunked\r\n") +
              b"4 ;x=y\r\nbody\r\n0\r\n\r\n",
    "bytes beyond ASCII": ALLOWED.replace(KEY, KEY + b"X: \xff\xc3\xa9\r\n"),
    "Expect": ALLOWED.replace(KEY, KEY + b"Expect: 100-continue\r\nContent-Length: 4\r\n") + b"body",
}


@pytest.mark.parametrize("request_bytes", GOOD.values(), ids=GOOD)
@pytest.mark.parametrize("tls", [False, True])
def test_a_request_with_one_reading_is_served(shared, tls, request_bytes):
    for pieces in cuts(request_bytes):
        with connect(port_of(shared.root, tls), tls) as client:
            send_in_pieces(client, [*pieces, b"GET /nowhere HTTP/1.1\r\n\r\n"])
            answer = read_to_end(client).removeprefix(b"HTTP/1.1 100 Continue\r\n\r\n")
        assert re.match(rb"HTTP/1\.[01] 200 OK\r\n", answer), pieces
        assert answer.count(b" 404 Invalid endpoint") == (b"HTTP/1.1" in request_bytes), pieces
