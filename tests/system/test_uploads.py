"""Many clients that upload at the same time: whatever their bodies hold, each is taken in whole."""

import json
import os
from concurrent.futures import ThreadPoolExecutor

import pytest

from support.clients import ask, connect, read_to_end
from support.destinations import Destination, answer_bytes
from support.raw_requests import RequestRecorder
from support.room import ended_clients
from support.scratch_root import PAIRING_KEY

CLIENTS = 128
AT_A_TIME = 32  # they wait for the destination, where there are fewer places
SIZE = 32768  # the largest body that is forwarded


def indented_json():
    text = json.dumps([{"id": number, "blocked": False} for number in range(1000)], indent=4)
    return text.encode()[:SIZE]


CONTENTS = {
    "line feeds": b"\n" * SIZE,
    "empty lines": b"\r\n" * (SIZE // 2),
    "header lines": b"a:\n" * (SIZE // 3) + b"\n\n",
    "indented JSON": indented_json(),
    "random bytes": os.urandom(SIZE),
    "zeros": bytes(SIZE),
}

FRAMINGS = {
    "a length": lambda body: b"Content-Length: %d\r\n\r\n" % len(body) + body,
    "chunks": lambda body: b"Transfer-Encoding: chunked\r\n\r\n" + b"".join(
        b"%x\r\n" % len(part) + part + b"\r\n"
        for part in (body[:1000], body[1000:20000], body[20000:])) + b"0\r\n\r\n",
}


def request_with(framed):
    return (f"PATCH /api/1/router-ref HTTP/1.1\r\nHost: x\r\nPairingKey: {PAIRING_KEY}\r\n"
            "Connection: close\r\n").encode() + framed


def assert_read_so_far(root, tls):
    """What came before this connection has been read when this answer comes."""
    assert ask(root.https_port if tls else root.http_port, "GET", "/api/mac", tls=tls).status == 200


@pytest.mark.parametrize("content", CONTENTS.values(), ids=CONTENTS)
@pytest.mark.parametrize("framing", FRAMINGS.values(), ids=FRAMINGS)
@pytest.mark.parametrize("tls", [False, True])
def test_uploads_that_come_at_the_same_time_are_all_taken_in(root, daemon, content, framing, tls):
    assert len(content) == SIZE
    request = request_with(framing(content))
    recorder = RequestRecorder(answer_bytes(b"ok"))
    clients = [connect(root.https_port if tls else root.http_port, tls) for _ in range(CLIENTS)]

    def send(part):
        return lambda client: client.sendall(part)

    with Destination(root.destination_port, recorder), ThreadPoolExecutor(AT_A_TIME) as pool:
        list(pool.map(send(request[:len(request) // 2]), clients))
        assert_read_so_far(root, tls)
        list(pool.map(send(request[len(request) // 2:-1]), clients))
        assert_read_so_far(root, tls)
        for first in range(0, CLIENTS, AT_A_TIME):
            some = clients[first:first + AT_A_TIME]
            list(pool.map(send(request[-1:]), some))
            for answer in pool.map(read_to_end, some):
                assert answer.startswith(b"HTTP/1.1 200 OK\r\n")
    for client in clients:
        client.close()
    assert [each.body == content for each in recorder.take()] == [True] * CLIENTS
    assert ended_clients(daemon) == 0


def test_both_listeners_take_them_in_at_the_same_time(root, daemon):
    request = request_with(FRAMINGS["a length"](CONTENTS["line feeds"]))
    recorder = RequestRecorder(answer_bytes(b"ok"))
    clients = [connect(root.https_port if tls else root.http_port, tls)
               for _ in range(CLIENTS) for tls in (False, True)]
    with Destination(root.destination_port, recorder):
        for client in clients:
            client.sendall(request[:-1])
        for tls in (False, True):
            assert_read_so_far(root, tls)
        for client in clients:
            client.sendall(request[-1:])
            assert read_to_end(client).startswith(b"HTTP/1.1 200 OK\r\n")
    for client in clients:
        client.close()
    assert len(recorder.take()) == 2 * CLIENTS
