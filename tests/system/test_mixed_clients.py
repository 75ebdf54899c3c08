"""All that clients and a destination may do wrong, in any order and at the same time: nobody stays
behind, and the daemon goes on serving."""

import random
import socket
import threading
import time
from contextlib import suppress

from support.clients import ask, connect
from support.destinations import Destination, answer_bytes, read_request
from support.scratch_root import PAIRING_KEY

SECONDS = 5
THREADS = 24
RESET = b"\1\0\0\0\0\0\0\0"  # the end of a connection by SO_LINGER
KEY = f"PairingKey: {PAIRING_KEY}\r\n".encode()
PATCH = b"PATCH /api/1/router-ref HTTP/1.1\r\n" + KEY

REQUESTS = [
    b"GET /api/version HTTP/1.1\r\nHost: x\r\n" + KEY + b"\r\n",
    b"GET /api/version HTTP/1.0\r\n" + KEY + b"X: " + b"y" * 60000 + b"\r\n\r\n",
    b"GET /api/mac HTTP/1.1\r\n\r\n",
    b"GET /" + b"u" * 60000 + b" HTTP/1.1\r\n\r\n",
    b"HEAD /api/mac HTTP/1.1\r\n\r\n",
    b"CONNECT x:1 HTTP/1.1\r\n\r\n",
    b"CONNECT x:1 HTTP/1.1\r\nA : b\r\n\r\n",
    b"OPTIONS / HTTP/1.1\r\n\r\n",
    b"nonsense\r\n\r\n",
    PATCH + b"Transfer-Encoding: chunked\r\n\r\n4\r\nbody\r\n0\r\n\r\n",
    PATCH + b"Expect: 100-continue\r\nContent-Length: 4\r\n\r\nbody",
    PATCH + b"Expect: 100-continue\r\nX: " + b"x" * 4000 + b"\r\nContent-Length: 32768\r\n\r\n" +
    b"b" * 32768,
    PATCH + b"Content-Length: 40000\r\n\r\n" + b"b" * 40000,
    PATCH + b"Content-Length: 4194305\r\n\r\n",
    b"POST /api/mac HTTP/1.1\r\nContent-Length: 2000000\r\n\r\n" + b"z" * 2000000,
    b"PUT /api/x HTTP/1.1\r\n" + KEY + b"Content-Length: 3\r\n\r\nput",
    b"DELETE /api/x HTTP/1.1\r\n" + KEY + b"\r\n",
]

# What a destination sends, and whether it ends the connection then.
REPLIES = [
    (b"", True),
    (b"HTTP/1.1 200 OK\r\nContent-Le", True),
    (b"HTTP/1.0 200 OK\r\n\r\nabc", True),
    (b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nab", True),
    (answer_bytes(b"ok") + b"extra", False),
    (b"HTTP/1.1 100 Continue\r\n\r\n" + answer_bytes(b"ok"), False),
    (answer_bytes(bytes(3 << 20)), False),
    (b"HTTP/1.1 204 No Content\r\n\r\n", False),
    (b"HTTP/1.1 101 Other\r\n\r\n", False),
    (answer_bytes(b"ok" * 1500), False),
]


def reply_somehow(connection):
    chance = random.Random()
    with suppress(OSError):
        while read_request(connection):
            reply, ends = chance.choice(REPLIES)
            connection.sendall(reply)
            if ends:
                return


def send_in_pieces(client, data, chance):
    while data:
        size = chance.choice([1, 7, 100, 5000, len(data)]) if len(data) < 3000 else 50000
        client.sendall(data[:size])
        data = data[size:]


def misbehave(root, chance):
    """One connection."""
    tls = chance.random() < 0.5
    with connect(root.https_port if tls else root.http_port, tls,
                 source=f"127.0.0.{chance.randrange(2, 6)}") as client:
        client.settimeout(0.3)
        for _ in range(chance.randrange(1, 7)):
            data = b"".join(chance.choices(REQUESTS, k=chance.randrange(1, 5)))
            if chance.random() < 0.3:
                data = data[:chance.randrange(len(data))]
            send_in_pieces(client, data, chance)
            if chance.random() < 0.6:
                with suppress(TimeoutError):
                    client.recv(chance.choice([1, 100, 65536, 1 << 22]))
        if chance.random() < 0.3:
            client.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, RESET)
        elif not tls and chance.random() < 0.5:
            client.shutdown(socket.SHUT_WR)


def test_nobody_stays_behind(root, daemon):
    end = time.monotonic() + SECONDS

    def work(number):
        chance = random.Random(number)
        while time.monotonic() < end:
            with suppress(OSError, ValueError):
                misbehave(root, chance)

    with Destination(root.destination_port, reply_somehow):
        threads = [threading.Thread(target=work, args=(number,)) for number in range(THREADS)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        daemon.wait_for_no_clients()
    for tls in (False, True):
        port = root.https_port if tls else root.http_port
        assert ask(port, "GET", "/api/mac", tls=tls).status == 200
