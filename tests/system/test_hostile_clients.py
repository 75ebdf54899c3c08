"""Clients that vanish, flood or talk nonsense: the daemon stays small and goes on serving."""

import array
import fcntl
import os
import socket
import termios
import threading
import time

import pytest

from sdk_rest_host import Answer
from support.clients import ask, connect, exchange, read_to_end, reset
from support.clogged import ask_into_full_ways
from support.destinations import Destination, answer_bytes, answering_after, hang
from support.scratch_root import PAIRING_KEY
from support.waiting import DEFAULT_LIMIT, SANITIZER, wait_until

KEY = {"PairingKey": PAIRING_KEY}
GIBIBYTE = 1 << 30
LARGEST_MEMORY_KIB = 32 * 1024
BLOCK = b"b" * 65536

HEAD = (f"PATCH /api/1/router-ref HTTP/1.1\r\nHost: x\r\nPairingKey: {PAIRING_KEY}\r\n").encode()
REQUEST = HEAD + b"Content-Length: 4\r\n\r\nbody"


def port_of(root, tls):
    return root.https_port if tls else root.http_port


def assert_serving(root):
    assert ask(root.http_port, "GET", "/api/version").status == 200
    assert ask(root.https_port, "GET", "/api/x", headers=KEY, tls=True).status == 200


def assert_small(daemon):
    if SANITIZER:
        print("the memory of a sanitizer's build says nothing: not looked at")
    else:
        assert daemon.peak_resident_kib() <= LARGEST_MEMORY_KIB


@pytest.mark.parametrize("leave", [reset, socket.socket.close], ids=["reset", "close"])
@pytest.mark.parametrize("tls", [False, True])
def test_clients_that_vanish_while_their_requests_are_forwarded(root, daemon, tls, leave):
    count = 60
    go_on = threading.Event()

    behave = answering_after(go_on, answer_bytes(BLOCK))
    with Destination(root.destination_port, behave) as destination:
        before = daemon.descriptors()
        mark = daemon.mark()
        clients = []
        for _ in range(count):
            clients.append(connect(port_of(root, tls), tls))
            clients[-1].sendall(REQUEST)
        daemon.wait_for_log("INFO: .*: PATCH /api/1/router-ref$", since=mark, count=count)
        destination.wait_for_connections(1)
        for client in clients:
            leave(client)
        go_on.set()
        # All of them wait in one queue: when this one is answered, theirs are through.
        answer = ask(port_of(root, tls), "GET", "/api/version", headers=KEY, tls=tls)
        assert answer.body == BLOCK
        daemon.wait_for_no_clients()
    wait_until(lambda: not daemon.has_connection_to(root.destination_port),
               "the end of the connections to the destination")
    assert daemon.descriptors() == before


def test_clients_that_vanish_while_the_destination_hangs_and_dies(root, daemon):
    with Destination(root.destination_port, hang) as destination:
        mark = daemon.mark()
        clients = [connect(port_of(root, tls), tls) for tls in (False, True) for _ in range(20)]
        for client in clients:
            client.sendall(REQUEST)
        daemon.wait_for_log("INFO: .*: PATCH /api/1/router-ref$", since=mark, count=len(clients))
        destination.wait_for_connections(2)
        for client in clients[::2]:
            reset(client)
    # The destination has gone: whoever is left gets to know it.
    for client in clients[1::2]:
        assert read_to_end(client).startswith(b"HTTP/1.1 500 ")
        client.close()
    daemon.wait_for_no_clients()


@pytest.mark.parametrize("tls", [False, True])
@pytest.mark.parametrize("sent", [0, 3, 20, len(HEAD), len(HEAD) + 10, len(REQUEST) - 1])
def test_clients_that_vanish_in_the_middle_of_a_request(root, daemon, sdk_host, tls, sent):
    before = daemon.descriptors()
    for number in range(20):
        client = connect(port_of(root, tls), tls)
        client.sendall(REQUEST[:sent])
        reset(client) if number % 2 else client.close()
    # Connections are taken in their order: with this one all of them have been.
    assert ask(port_of(root, tls), "GET", "/", tls=tls).status == 404
    daemon.wait_for_no_clients()
    assert daemon.descriptors() == before
    assert sdk_host.requests == []
    assert_serving(root)


@pytest.mark.parametrize("tls", [False, True])
def test_clients_that_vanish_in_the_middle_of_their_answers(root, daemon, sdk_host, tls):
    sdk_host.respond = lambda request: Answer(body=BLOCK * 32)
    for _ in range(20):
        client = connect(port_of(root, tls), tls)
        client.sendall(REQUEST)
        assert client.recv(1) == b"H"
        reset(client)
    daemon.wait_for_no_clients()
    assert_serving(root)


def flood(port, tls, head, piece, total):
    """Sends `head` and then `piece` again and again; returns how much went out and what came
    back. The other side may end it."""
    sent = 0
    with connect(port, tls) as client:
        try:
            client.sendall(head)
            while sent < total:
                client.sendall(piece)
                sent += len(piece)
        except OSError:
            pass
        try:
            return sent, read_to_end(client)
        except OSError:
            return sent, b""


FLOODS = {
    "announced": (HEAD + b"Content-Length: 1073741824\r\n\r\n", BLOCK),
    "announced beyond all numbers":
        (HEAD + b"Content-Length: 99999999999999999999999\r\n\r\n", BLOCK),
    "in chunks": (HEAD + b"Transfer-Encoding: chunked\r\n\r\n", b"10000\r\n" + BLOCK + b"\r\n"),
    "in one chunk": (HEAD + b"Transfer-Encoding: chunked\r\n\r\n40000000\r\n", BLOCK),
    "trailers": (HEAD + b"Transfer-Encoding: chunked\r\n\r\n0\r\n", b"X: " + BLOCK[:999] + b"\r\n"),
    "many headers": (HEAD, b"X-Header: " + BLOCK[:999] + b"\r\n"),
    "one header": (HEAD + b"X-Header: ", BLOCK),
    "folded header": (HEAD, b" " + BLOCK[:999] + b"\r\n"),
    "request line": (b"GET /api/", BLOCK),
    "empty lines": (b"", b"\r\n" * 1000),
    "noise": (b"", bytes(range(256)) * 256),
}


@pytest.mark.parametrize("tls", [False, True])
@pytest.mark.parametrize("head, piece", FLOODS.values(), ids=FLOODS)
def test_a_gibibyte_is_cut_off_early(root, daemon, sdk_host, tls, head, piece):
    sent, answer = flood(port_of(root, tls), tls, head, piece, GIBIBYTE)
    # What the kernel's buffers take up comes on top of what the daemon reads.
    assert sent < GIBIBYTE // 8
    assert answer == b"" or answer.startswith((b"HTTP/1.1 413 ", b"HTTP/1.1 400 "))
    assert sdk_host.requests == []
    assert_small(daemon)
    daemon.wait_for_no_clients()
    assert_serving(root)


def test_an_endless_size_of_a_chunk_does_not_fill_the_memory(root, daemon, sdk_host):
    if SANITIZER:
        pytest.skip("the memory of a sanitizer's build says nothing")
    head = HEAD + b"Transfer-Encoding: chunked\r\n\r\n"
    flood(root.http_port, False, head, b"0" * 65536, LARGEST_MEMORY_KIB * 1024 + (1 << 20))
    assert_small(daemon)
    assert_serving(root)


class Sender:
    """Sends a quarter of a GiB over the connection of a client that reads nothing."""

    def __init__(self, client):
        self.client = client
        self.outcome = []
        self.thread = threading.Thread(target=lambda: self.outcome.append(self.send()))
        self.thread.start()

    def send(self):
        try:
            for _ in range(GIBIBYTE // 4 // len(BLOCK)):
                self.client.sendall(BLOCK)
        except OSError:
            return False
        return True

    def is_stalled(self):
        """True when it has data to send and for half a second none of it was taken."""
        before = unsent_bytes(self.client)
        time.sleep(0.5)
        return before >= len(BLOCK) and unsent_bytes(self.client) == before

    def end(self):
        """Returns whether all was taken."""
        self.client.shutdown(socket.SHUT_RDWR)
        self.thread.join(DEFAULT_LIMIT)
        self.client.close()
        return self.outcome != [False]


@pytest.mark.parametrize("tls", [False, True])
def test_what_follows_a_pending_request_is_not_taken_in(root, daemon, tls):
    with Destination(root.destination_port, hang) as destination:
        client = connect(port_of(root, tls), tls)
        client.sendall(REQUEST)
        destination.wait_for_connections(1)
        sender = Sender(client)
        wait_until(sender.is_stalled, "a sender that is held up")
        assert_small(daemon)
    assert not sender.end()


@pytest.mark.parametrize("tls", [False, True])
def test_what_follows_an_answer_that_is_not_read_is_not_taken_in(root, daemon, tls):
    """Not even where libevent answers by itself, and the connection is kept."""
    port = port_of(root, tls)
    client, = ask_into_full_ways(daemon, port, tls, b"CONNECT x:1 HTTP/1.1\r\n\r\n", 1)
    sender = Sender(client)
    wait_until(sender.is_stalled, "a sender that is held up")
    assert_small(daemon)
    assert not sender.end()


def unsent_bytes(client):
    number = array.array("i", [0])
    fcntl.ioctl(client.fileno(), termios.TIOCOUTQ, number)
    return number[0]


@pytest.mark.parametrize("size", [63 * 1024, 65 * 1024, 1 << 20])
@pytest.mark.parametrize("split", [1, 100])
def test_headers_are_taken_up_to_64_kibibytes(root, daemon, sdk_host, size, split):
    part = b"X-Header: " + b"h" * (size // split - 12) + b"\r\n"
    request = b"GET /api/version HTTP/1.1\r\nHost: x\r\nConnection: close\r\n" + part * split
    answer = exchange(root.http_port, request + b"\r\n")
    if size < 64 * 1024:
        assert answer.startswith(b"HTTP/1.1 200 OK\r\n")
    else:
        assert answer == b"" or answer.startswith(b"HTTP/1.1 400 Bad Request\r\n")
    assert_small(daemon)
    assert_serving(root)


NONSENSE = [
    b"\r\n\r\n", b"GET\r\n\r\n", b"GET /api/version\r\n\r\n", b"GET /api/version HTTP/9.9\r\n\r\n",
    b"GET /api/version HTTP/1.1 HTTP/1.1\r\n\r\n", b" GET /api/version HTTP/1.1\r\n\r\n",
    b"/api/version\r\n\r\n", b"\x00\x01\x02\x03\r\n\r\n", b"\xff" * 100 + b"\r\n\r\n",
    b"GET /api/version HTTP/1.1\r\nno colon\r\n\r\n",
    b"GET /api/version HTTP/1.1\r\nContent-Length: -1\r\n\r\n",
    b"PATCH /api/1/router-ref HTTP/1.1\r\nContent-Length: x\r\n\r\n",
    b"PATCH /api/1/router-ref HTTP/1.1\r\nContent-Length: -1\r\n\r\n",
    b"PATCH /api/1/router-ref HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\nnonsense\r\n\r\n",
    b"PATCH /api/1/router-ref HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n-5\r\nabc\r\n",
    b"PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n",
]


@pytest.mark.parametrize("request_bytes", NONSENSE)
@pytest.mark.parametrize("tls", [False, True])
def test_nonsense_is_turned_away(shared, tls, request_bytes):
    answer = exchange(port_of(shared.root, tls), request_bytes, tls)
    assert b"HTTP/1.1 200" not in answer
    assert_serving(shared.root)


LINE = b"PairingKey: " + PAIRING_KEY.encode()
KEYLESS = [
    b"PairingKey: wrong\r\n" + LINE, LINE.replace(b" ", b"\r\n "), LINE.replace(b" ", b"\t"),
    LINE + b"\r\n x", LINE[:-4] + b"\r\n " + LINE[-4:], LINE.replace(b":", b" :"), b" " + LINE,
    LINE.replace(b":", b"\0:"), LINE + b", x", LINE + b"," + PAIRING_KEY.encode(), b"X: y\r" + LINE,
    b"X: y\0\r" + LINE, b"Trailer: PairingKey",
]


@pytest.mark.parametrize("line", KEYLESS)
def test_a_key_that_is_only_nearly_given_lets_nobody_in(root, daemon, sdk_host, line):
    for body in (b"Connection: close\r\n\r\n",
                 b"Connection: close\r\nTransfer-Encoding: chunked\r\n\r\n1\r\na\r\n0\r\n" + LINE +
                 b"\r\n\r\n"):
        request = b"POST /api/x HTTP/1.1\r\nHost: x\r\n" + line + b"\r\n" + body
        answer = exchange(root.https_port, request, True)
        assert answer.startswith((b"HTTP/1.1 417 Pairing key not as expected\r\n",
                                  b"HTTP/1.1 400 Bad Request\r\n",
                                  b"HTTP/1.1 413 Request Entity Too Large\r\n"))
    assert sdk_host.requests == []


@pytest.mark.parametrize("uri", [
    b"http://x/api/version", b"http:///api/version", b"http:/api/version", b"x:/api/version",
    b"//api/version", b"/api\\version", b"/api%2fversion", b"/%61pi/version", b"/./api/version",
    b"/x/../api/version", b";/api/version", b"?/api/version", b"api/version"])
@pytest.mark.parametrize("tls", [False, True])
def test_other_ways_to_write_an_endpoint_lead_nowhere(shared, tls, uri):
    received = len(shared.sdk_host.requests)
    answer = exchange(port_of(shared.root, tls), b"GET " + uri + b" HTTP/1.1\r\nConnection: close"
                      b"\r\n" + LINE + b"\r\n\r\n", tls)
    assert answer.startswith((b"HTTP/1.1 404 Invalid endpoint is called\r\n",
                              b"HTTP/1.1 400 Bad Request\r\n"))
    assert len(shared.sdk_host.requests) == received


def test_a_client_that_sends_byte_by_byte_does_not_hold_up_others(root, daemon, sdk_host):
    request = b"GET /api/version HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n"
    with connect(root.http_port) as slow:
        for number, byte in enumerate(request):
            slow.sendall(bytes([byte]))
            if number % 10 == 0:
                assert_serving(root)
        assert read_to_end(slow).startswith(b"HTTP/1.1 200 OK\r\n")


def test_random_bytes_do_no_harm(root, daemon, sdk_host):
    for size in (1, 10, 100, 1000, 10000):
        for _ in range(20):
            assert b"HTTP/1.1 200" not in exchange(root.http_port, os.urandom(size) + b"\r\n\r\n")
            assert b"HTTP/1.1 200" not in exchange(root.https_port, os.urandom(size))
    assert_serving(root)
