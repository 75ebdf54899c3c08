"""Clients that do not read what they asked for."""

import socket

from support.clients import connect, read_to_end
from support.scratch_root import PAIRING_KEY

SMALL = 4096  # a receive buffer, in bytes
REQUEST = (f"GET /api/version HTTP/1.1\r\nHost: x\r\nPairingKey: {PAIRING_KEY}\r\n"
           "Connection: close\r\n\r\n").encode()


def port_of(root, tls):
    return root.https_port if tls else root.http_port


def stall(root, tls, source=None):
    """A client that asks and reads no more than the status of its answer, which is returned too."""
    client = connect(port_of(root, tls), tls, source=source, receive_buffer=SMALL)
    client.sendall(REQUEST)
    line = b""
    while len(line) < len("HTTP/1.1 200"):
        part = client.recv(len("HTTP/1.1 200") - len(line))
        assert part, f"the connection ended after {line!r}"
        line += part
    return client, int(line.split()[1])


def read_on(client):
    """All the rest, in no time."""
    client.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 20)
    return read_to_end(client)
