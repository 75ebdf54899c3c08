"""Destinations that behave badly, and a fast one that behaves well."""

import itertools
import socket
import threading

from support.waiting import DEFAULT_LIMIT, wait_until


def read_request(connection):
    """One request, its body included; empty when the other side has gone."""
    data = b""
    while b"\r\n\r\n" not in data:
        part = connection.recv(65536)
        if not part:
            return b""
        data += part
    head, _, body = data.partition(b"\r\n\r\n")
    length = 0
    for line in head.split(b"\r\n")[1:]:
        name, _, value = line.partition(b":")
        if name.lower() == b"content-length":
            length = int(value)
    while len(body) < length:
        part = connection.recv(65536)
        if not part:
            return b""
        body += part
    return head + b"\r\n\r\n" + body


class Destination:
    """Listens on 127.0.0.1 and runs `behave(connection)` on a thread for each connection, which
    is closed when that returns."""

    def __init__(self, port, behave):
        self.behave = behave
        self._connections = []
        self.accepted = 0
        self._listener = socket.create_server(("127.0.0.1", port), backlog=64)
        self._thread = threading.Thread(target=self._accept, daemon=True)
        self._thread.start()

    def _accept(self):
        while True:
            try:
                connection, _ = self._listener.accept()
            except OSError:
                return
            connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            self._connections.append(connection)
            self.accepted += 1
            threading.Thread(target=self._serve, args=(connection,), daemon=True).start()

    def _serve(self, connection):
        try:
            self.behave(connection)
        except OSError:
            pass
        finally:
            connection.close()

    def wait_for_connections(self, count, limit=DEFAULT_LIMIT):
        wait_until(lambda: self.accepted >= count, f"{count} connections at the destination", limit)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        # Closing alone does not end an accept() that waits in another thread.
        self._listener.shutdown(socket.SHUT_RDWR)
        self._listener.close()
        self._thread.join()
        self.drop()

    def drop(self):
        """Ends all connections."""
        for connection in self._connections:
            try:
                connection.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass


def answering(answer, repeat=True):
    """Each request gets these bytes; the connection stays, or closes after the first answer."""

    def behave(connection):
        while read_request(connection):
            connection.sendall(answer)
            if not repeat:
                return

    return behave


def answering_by_uri(sizes):
    """Each request gets a body of zeros, as many as `sizes` has for its URI."""

    def behave(connection):
        while request := read_request(connection):
            connection.sendall(answer_bytes(bytes(sizes[request.split()[1].decode()])))

    return behave


def answering_after(event, answer):
    """Each request gets these bytes, the first one not before the event."""

    def behave(connection):
        while read_request(connection):
            event.wait(DEFAULT_LIMIT)
            connection.sendall(answer)

    return behave


class Noting:
    """Notes each request that comes, with the number of its connection, and has
    `answer(connection, number, index)` deal with it: `index` is 0 for the first one of its
    connection, which ends when that returns something false."""

    def __init__(self, answer):
        self._answer = answer
        self._lock = threading.Lock()
        self._connections = 0
        self._arrived = []

    def __call__(self, connection):
        with self._lock:
            number = self._connections
            self._connections += 1
        for index in itertools.count():
            request = read_request(connection)
            if not request:
                return
            with self._lock:
                self._arrived.append((number, request))
            if not self._answer(connection, number, index):
                return

    @property
    def connections(self):
        """The numbers of the connections over which the requests came, in their order."""
        with self._lock:
            return [number for number, _ in self._arrived]

    @property
    def bodies(self):
        with self._lock:
            return [request.partition(b"\r\n\r\n")[2] for _, request in self._arrived]


class HeldDestination:
    """Answers nothing before `go_on`; `bodies` tells in what order what came."""

    def __init__(self, port):
        self.go_on = threading.Event()
        self._noting = Noting(self._answer)
        self._destination = Destination(port, self._noting)

    def _answer(self, connection, *_):
        self.go_on.wait()
        connection.sendall(answer_bytes(b"ok"))
        return True

    @property
    def bodies(self):
        return self._noting.bodies

    def __enter__(self):
        self._destination.__enter__()
        return self

    def __exit__(self, *_):
        self.go_on.set()
        self._destination.__exit__()


def close_at_once(connection):
    pass


def hang(connection):
    """Takes everything and never answers, until the other side gives up."""
    while connection.recv(65536):
        pass


def answer_bytes(body, status="200 OK", headers=b"Content-Type: text/plain\r\n"):
    return (b"HTTP/1.1 " + status.encode() + b"\r\n" + headers +
            b"Content-Length: " + str(len(body)).encode() + b"\r\n\r\n" + body)
