"""Clients of the daemon: well-behaved ones, and raw connections for everything else."""

import http.client
import socket
import ssl
from dataclasses import dataclass

from support.waiting import DEFAULT_LIMIT


@dataclass
class Answer:
    status: int
    reason: str
    headers: list
    body: bytes

    def header(self, name):
        values = [value for key, value in self.headers if key.lower() == name.lower()]
        assert len(values) <= 1, f"{name} comes {len(values)} times"
        return values[0] if values else None


def tls_context():
    """Accepts any certificate: most tests are not about it."""
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
    context.check_hostname = False
    context.verify_mode = ssl.CERT_NONE
    return context


class Client:
    """One keep-alive connection; it connects anew when the other side has closed it. `source` is
    the address that it comes from, one of loopback's."""

    def __init__(self, port, tls=False, limit=DEFAULT_LIMIT, host="127.0.0.1", source=None):
        options = {"timeout": limit, "source_address": source and (source, 0)}
        if tls:
            self.connection = http.client.HTTPSConnection(host, port, context=tls_context(),
                                                          **options)
        else:
            self.connection = http.client.HTTPConnection(host, port, **options)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        self.connection.close()

    def ask(self, method, uri, body=None, headers=()):
        self.connection.request(method, uri, body=body, headers=dict(headers))
        answer = self.connection.getresponse()
        return Answer(answer.status, answer.reason, answer.getheaders(), answer.read())


def ask(port, method, uri, body=None, headers=(), tls=False, limit=DEFAULT_LIMIT, source=None):
    """One request over a connection of its own."""
    with Client(port, tls, limit, source=source) as client:
        return client.ask(method, uri, body, headers)


def connect(port, tls=False, limit=DEFAULT_LIMIT, source=None, receive_buffer=None):
    """A raw connection. With a small receive buffer, in bytes, most of what it does not read stays
    on the other side."""
    connection = socket.socket()
    connection.settimeout(limit)
    if receive_buffer:
        connection.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
    connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    try:
        if source:
            connection.bind((source, 0))
        connection.connect(("127.0.0.1", port))
        return tls_context().wrap_socket(connection) if tls else connection
    except BaseException:
        connection.close()
        raise


def read_to_end(connection):
    """Everything until the other side closes or resets the connection."""
    data = b""
    try:
        while part := connection.recv(65536):
            data += part
    except (ConnectionError, ssl.SSLEOFError, ssl.SSLZeroReturnError):
        pass
    return data


def exchange(port, request, tls=False, limit=DEFAULT_LIMIT):
    """Sends raw bytes and then no more; returns all that comes back, which may be nothing when
    the other side does not like what it gets."""
    with connect(port, tls, limit) as connection:
        try:
            connection.sendall(request)
            if not tls:
                connection.shutdown(socket.SHUT_WR)
        except OSError:
            pass  # it has hung up; its answer may have come all the same
        return read_to_end(connection)


def reset(connection):
    """Drops a connection the hard way: the other side gets a reset."""
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, b"\1\0\0\0\0\0\0\0")
    connection.close()
