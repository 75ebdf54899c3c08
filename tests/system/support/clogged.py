"""Clients whose way back is full: the answer to their last request stays with the daemon, whatever
its size."""

import re
import select
import socket
from pathlib import Path

from support.clients import ask, connect
from support.waiting import wait_until

LEAST = 1  # a buffer as small as the kernel lets it be
SMALL = b"GET /api/mac HTTP/1.1\r\nHost: x\r\n\r\n"
TAKEN_UP = r"INFO: .*: (?:GET /api/\S+|PATCH /api/\S+|Answered (?:400|501) to a request of .*)$"


def _shrink_send_buffer(daemon, port):
    """Of the daemon's connection to the client at `port`; returns its descriptor there."""
    for descriptor in daemon.descriptors():
        connection = daemon.borrow_socket(descriptor)
        if connection is None:
            continue
        with connection:
            try:
                is_it = connection.getpeername()[1] == port
            except (OSError, IndexError):
                continue  # it listens, or is none of TCP's
            if is_it:
                connection.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, LEAST)
                return descriptor
    return None


def waits_to_write(daemon, descriptor):
    """Whether an event loop of the daemon waits until it can write there."""
    for entry in Path(f"/proc/{daemon.pid}/fdinfo").iterdir():
        try:
            text = entry.read_text()
        except FileNotFoundError:
            continue  # closed meanwhile
        watched = re.search(rf"^tfd: +{descriptor} events: +([0-9a-f]+)", text, re.M)
        if watched:
            return int(watched[1], 16) & select.EPOLLOUT != 0
    return False


class Clogged:
    """One that reads nothing of what it asks for, at a listener with a device list."""

    def __init__(self, daemon, port, tls=False, source=None):
        self.daemon = daemon
        self._listener = port, tls
        self.connection = connect(port, tls, source=source, receive_buffer=LEAST)
        own = self.connection.getsockname()[1]
        self._descriptor = wait_until(lambda: _shrink_send_buffer(daemon, own), "the connection")

    def ask(self, request):
        """Returns when the request has been taken up, and what can be written of its answer, if
        that came at once, has been."""
        mark = self.daemon.mark()
        self.connection.sendall(request)
        self.daemon.wait_for_log(TAKEN_UP, since=mark)
        port, tls = self._listener
        assert ask(port, "GET", "/api/mac", tls=tls).status == 200

    def is_full(self):
        return waits_to_write(self.daemon, self._descriptor)

    def ask_for_much(self, request):
        """Returns when the answer has begun to be written, which is larger than any buffer."""
        self.ask(request)
        wait_until(self.is_full, "an answer that waits")
        return self.connection


def fill(daemon, port, tls, request, most=1000):
    """A client that asks until the answer to its last request cannot be written, or so often; and
    how often that was."""
    client = Clogged(daemon, port, tls)
    count = 0
    while count < most and not client.is_full():
        client.ask(request)
        count += 1
    return client, count


def ask_into_full_ways(daemon, port, tls, request, count):
    """So many clients whose `request` has been taken up and whose answer to it is stuck. It may be
    one that ends the connection."""
    first, needed = fill(daemon, port, tls, SMALL)
    first.connection.close()
    clients = []
    for number in range(10 * count):
        # A request more or less makes the way full, as the kernel likes.
        client, _ = fill(daemon, port, tls, SMALL, needed - 1 - number % 3)
        was_full = client.is_full()
        if not was_full:
            client.ask(request)
        if client.is_full() and not was_full:
            clients.append(client.connection)
        else:
            client.connection.close()
        if len(clients) == count:
            return clients
    raise AssertionError(f"{len(clients)} ways are full")
