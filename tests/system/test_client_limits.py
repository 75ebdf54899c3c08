"""More clients, and more of their bytes, than one listener takes: it ends those that it can spare,
stays small, and goes on serving the others."""

import os
import resource
import signal
import ssl
import threading
import time
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import pytest

from support.clients import Client, ask, connect, read_to_end
from support.destinations import Destination, answer_bytes, answering_after, read_request
from support.room import CONNECTIONS, TOO_MANY_CONNECTIONS as TOO_MANY
from support.room import TOO_MUCH_UNFINISHED as TOO_MUCH
from support.room import WAITING as MOST_WAITING
from support.room import ended_clients, wait_for_ended_clients
from support.scratch_root import PAIRING_KEY
from support.waiting import DEFAULT_LIMIT, EMULATOR, SANITIZER, wait_until

KEY = {"PairingKey": PAIRING_KEY}
LARGEST_MEMORY_KIB = 32 * 1024

PATCH = b"PATCH /api/1/router-ref HTTP/1.1\r\nHost: x\r\n"
HEADERS = b"a:\n" * 990
LARGE_PART = b"Content-Length: 4000000\r\n\r\n" + b"b" * 2000000
MIB = 1 << 20


@pytest.fixture(autouse=True)
def enough_descriptors():
    before = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (before[1], before[1]))
    yield
    resource.setrlimit(resource.RLIMIT_NOFILE, before)


def assert_small(daemon):
    if SANITIZER:
        print("the memory of a sanitizer's build says nothing: not looked at")
    else:
        assert daemon.peak_resident_kib() <= LARGEST_MEMORY_KIB


def assert_serving(root):
    assert ask(root.http_port, "GET", "/api/mac").status == 200
    assert ask(root.https_port, "GET", "/api/mac", tls=True).status == 200


def send_half_a_handshake(root):
    connection = connect(root.https_port)
    incoming, outgoing = ssl.MemoryBIO(), ssl.MemoryBIO()
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
    context.check_hostname = False
    context.verify_mode = ssl.CERT_NONE
    with pytest.raises(ssl.SSLWantReadError):
        context.wrap_bio(incoming, outgoing).do_handshake()
    connection.sendall(outgoing.read())
    return connection


def send_part(port, part, tls=False):
    """The daemon may hang up while it is sent."""
    connection = connect(port, tls)
    try:
        connection.sendall(part)
    except OSError:
        pass
    return connection


CHUNKS = 10000 if EMULATOR else 60000  # it takes fifty times as long for each

HALF_DONE = {
    "silent": lambda root: connect(root.http_port),
    "silent on the TLS port": lambda root: connect(root.https_port),
    "half a TLS handshake": send_half_a_handshake,
    "a whole TLS handshake": lambda root: connect(root.https_port, True),
    "half a head": lambda root: send_part(root.http_port, PATCH),
    "a head full of headers": lambda root: send_part(root.http_port, PATCH + HEADERS),
    "half a body": lambda root: send_part(
        root.http_port, PATCH + b"Content-Length: 4000000\r\n\r\n" + b"b" * (2 * MIB)),
    "half a body in chunks": lambda root: send_part(
        root.http_port, PATCH + b"Transfer-Encoding: chunked\r\n\r\n" + b"4\r\nbody\r\n" * CHUNKS),
    "half a request in TLS": lambda root: send_part(root.https_port, PATCH + HEADERS, True),
    "half a body in TLS": lambda root: send_part(
        root.https_port, PATCH + b"Content-Length: 4000000\r\n\r\n" + b"b" * (2 * MIB), True),
}


@pytest.mark.parametrize("begin", HALF_DONE.values(), ids=HALF_DONE)
def test_a_thousand_clients_that_do_not_go_on(root, daemon, begin):
    before = daemon.descriptors()
    count = 100 if SANITIZER or EMULATOR else 1000
    clients = []
    for number in range(count):
        clients.append(begin(root))
        if number % 200 == 199:
            assert_serving(root)
    assert_serving(root)
    wait_until(lambda: len(daemon.client_connections()) <= max(CONNECTIONS.values()) + 2,
               "the end of the others")
    assert_small(daemon)
    for client in clients:
        client.close()
    daemon.wait_for_no_clients()
    assert daemon.descriptors() == before
    assert_serving(root)


def test_all_that_at_once(root, daemon):
    clients = [begin(root) for _ in range(100) for begin in HALF_DONE.values()]
    assert_serving(root)
    assert_small(daemon)
    for client in clients:
        client.close()
    daemon.wait_for_no_clients()


@pytest.mark.parametrize("tls", [False, True])
def test_ten_thousand_connections_that_come_and_go(root, daemon, tls):
    before = daemon.descriptors()
    port = root.https_port if tls else root.http_port
    for number in range(10000):
        connect(port).close()
        if number % 1000 == 0:
            assert_serving(root)
    # Then all of them have been accepted.
    assert_serving(root)
    daemon.wait_for_no_clients()
    assert daemon.descriptors() == before
    assert_small(daemon)


@pytest.mark.parametrize("tls", [False, True])
def test_who_waits_longest_makes_room(root, daemon, tls):
    port = root.https_port if tls else root.http_port
    room = CONNECTIONS[tls]
    with Client(port, tls) as early, Client(port, tls) as late:
        early.ask("GET", "/api/mac")
        late.ask("GET", "/api/mac")
        first = connect(port)
        clients = [connect(port) for _ in range(room - 3)]
        # All are taken in, and nobody had to go.
        wait_until(lambda: len(daemon.client_connections()) == room, "the clients")
        early.ask("GET", "/api/mac")
        assert ended_clients(daemon) == 0
        clients.append(connect(port))
        wait_for_ended_clients(daemon, 1, TOO_MANY)
        # Its last request was longer ago than the first one's connection.
        assert late.connection.sock.recv(1) == b""
        clients.append(connect(port))
        wait_for_ended_clients(daemon, 2, TOO_MANY)
        assert first.recv(1) == b""
        # The next ones are those that only connected; who had a request since stays.
        clients += [connect(port) for _ in range(50)]
        wait_for_ended_clients(daemon, 52, TOO_MANY)
        own = early.connection.sock.getsockname()
        assert early.ask("GET", "/api/mac").status == 200
        assert early.connection.sock.getsockname() == own
        for client in clients:
            client.close()


def test_who_waits_for_a_reply_is_not_ended(root, daemon):
    go_on = threading.Event()

    with Destination(root.destination_port, answering_after(go_on, answer_bytes(b"ok"))), \
            ThreadPoolExecutor(20) as pool:
        mark = daemon.mark()
        answers = [pool.submit(ask, root.http_port, "GET", "/api/version") for _ in range(20)]
        daemon.wait_for_log("INFO: .*: GET /api/version$", since=mark, count=len(answers))
        others = [connect(root.http_port) for _ in range(2 * CONNECTIONS[False])]
        wait_for_ended_clients(daemon, len(answers) + CONNECTIONS[False], TOO_MANY)
        go_on.set()
        assert [answer.result().body for answer in answers] == [b"ok"] * len(answers)
        for other in others:
            other.close()


def test_who_got_its_reply_is_ended_like_others(root, daemon, sdk_host):
    with Client(root.http_port) as answered:
        assert answered.ask("GET", "/api/version").status == 200
        others = [connect(root.http_port) for _ in range(CONNECTIONS[False])]
        wait_for_ended_clients(daemon, 1, TOO_MANY)
        assert answered.connection.sock.recv(1) == b""
        for other in others:
            other.close()


def test_the_address_with_the_most_unfinished_makes_room(root, daemon, sdk_host):
    def begin(size, source, tls=False):
        client = connect(root.https_port if tls else root.http_port, tls, source=source)
        try:
            client.sendall(PATCH + b"Content-Length: 4000000\r\n\r\n" + b"b" * size)
        except OSError:
            pass  # it was ended meanwhile
        return client

    small = [begin(500000, f"127.0.0.{number}") for number in (3, 4)]
    # TLS has a listener of its own, with a measure of its own.
    elsewhere = begin(MIB, "127.0.0.2", tls=True)
    early = begin(2500000, "127.0.0.2")
    late = begin(3500000, "127.0.0.2")
    wait_for_ended_clients(daemon, 1, TOO_MUCH)
    assert read_to_end(early) == b""
    for client in (*small, elsewhere, late):
        client.setblocking(False)
        with pytest.raises((BlockingIOError, ssl.SSLWantReadError)):
            client.recv(1)
    assert_serving(root)
    assert ended_clients(daemon) == 1
    for client in (*small, elsewhere, early, late):
        client.close()


@pytest.mark.parametrize("tls", [False, True])
def test_who_sent_too_much_is_not_read_to_the_end(root, daemon, tls):
    """What it holds is let go at once: others fill the memory meanwhile."""
    port = root.https_port if tls else root.http_port

    def send_too_much(client):
        with pytest.raises((ConnectionError, ssl.SSLEOFError)):
            client.sendall(PATCH + b"a:\n" * 8 * MIB)

    clients = [connect(port, tls) for _ in range(20)]
    with ThreadPoolExecutor(len(clients)) as pool:
        list(pool.map(send_too_much, clients))
    daemon.wait_for_log("INFO: .*: Answered 400 to a request of 127.0.0.1 that was not taken up$")
    assert_small(daemon)
    for client in clients:
        client.close()
    assert_serving(root)


@pytest.mark.parametrize("tls", [False, True])
@pytest.mark.parametrize("uri", ["/api/mac", "/api/1/router-info"])
def test_requests_that_come_before_their_turn_are_left_outside(root, daemon, sdk_host, tls, uri):
    requests = (f"GET {uri} HTTP/1.1\r\nPairingKey: {PAIRING_KEY}\r\n\r\n" * 2000).encode()
    port = root.https_port if tls else root.http_port
    end = time.monotonic() + 4

    def send_and_read(connection):
        connection.settimeout(0.001)
        while time.monotonic() < end:
            for step in (lambda: connection.send(requests), lambda: connection.recv(MIB)):
                try:
                    step()
                except (TimeoutError, ssl.SSLWantReadError, ssl.SSLWantWriteError):
                    pass

    clients = [connect(port, tls) for _ in range(4)]
    with ThreadPoolExecutor(len(clients)) as pool:
        list(pool.map(send_and_read, clients))
    assert_small(daemon)
    for client in clients:
        client.close()
    assert_serving(root)


def test_heads_that_come_before_their_turn_count_as_what_they_will_take(root, daemon):
    # Each header takes some hundred bytes, however short its line.
    # As much as libevent reads in one go: all of it has come when the first request is taken up.
    part = b"GET /api/mac HTTP/1.1\r\n\r\n" + b"GET /api/mac HTTP/1.1\r\n" + b"a:\n" * 990
    clients = [send_part(root.http_port, part) for _ in range(100)]
    wait_for_ended_clients(daemon, 1, TOO_MUCH)
    assert_small(daemon)
    for client in clients:
        client.close()
    assert_serving(root)


def is_stopped(pid):
    return Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()[0] == "T"


def test_who_has_too_much_behind_its_request_is_not_ended_while_it_waits(root, daemon):
    """The memory is filled by others in the turn of the loop for which the request is put off."""
    go_on = threading.Event()
    head = f"GET /api/version HTTP/1.1\r\nPairingKey: {PAIRING_KEY}\r\n".encode()
    part = PATCH + b"a:\n" * 990

    with Destination(root.destination_port, answering_after(go_on, answer_bytes(b"ok"))):
        others = [send_part(root.https_port, part, tls=True) for _ in range(72)]
        late = [connect(root.https_port, tls=True) for _ in range(4)]
        client = connect(root.https_port, tls=True)
        assert_serving(root)  # what was sent before has been read
        os.kill(daemon.pid, signal.SIGSTOP)
        wait_until(lambda: is_stopped(daemon.pid), "the stop of the daemon")
        client.sendall(head + b"Expect: 100-continue\r\n\r\n" + head + b"a:\n" * 990)
        for other in late:
            other.sendall(part)
        os.kill(daemon.pid, signal.SIGCONT)
        wait_for_ended_clients(daemon, 1, TOO_MUCH)
        daemon.wait_for_log("INFO: .*: GET /api/version$")
        go_on.set()
        assert b"HTTP/1.1 200 OK" in client.recv(MIB)
    for other in (*others, *late, client):
        other.close()
    assert_serving(root)


def test_what_was_answered_counts_no_more(root, daemon, sdk_host):
    with Client(root.http_port) as client:
        for _ in range(250):
            assert client.ask("PATCH", "/api/1/router-ref", b"b" * 32768).status == 200
        for _ in range(300):
            assert client.ask("GET", "/api/mac", headers=[("X", "x" * 60000)]).status == 200
    assert ended_clients(daemon) == 0


def test_clients_that_were_ended_for_their_size_take_no_place(root, daemon):
    clients = [send_part(root.http_port, PATCH + LARGE_PART) for _ in range(10)]
    wait_for_ended_clients(daemon, 7, TOO_MUCH)
    for client in clients:
        client.close()
    daemon.wait_for_no_clients()
    clients = [connect(root.http_port) for _ in range(CONNECTIONS[False])]
    wait_until(lambda: len(daemon.client_connections()) == CONNECTIONS[False], "the clients")
    with Client(root.https_port, True) as elsewhere:
        assert elsewhere.ask("GET", "/api/mac").status == 200
    assert ended_clients(daemon, TOO_MANY) == 0
    for client in clients:
        client.close()


def test_what_a_client_leaves_unfinished_counts_no_more(root, daemon):
    for _ in range(10):
        send_part(root.http_port, PATCH + b"Content-Length: 4000000\r\n\r\n" + b"b" * MIB).close()
        daemon.wait_for_no_clients()
    assert ended_clients(daemon) == 0


def test_no_more_than_a_hundred_requests_wait(root, daemon):
    go_on = threading.Event()

    with Destination(root.destination_port, answering_after(go_on, answer_bytes(b"ok"))), \
            ThreadPoolExecutor(MOST_WAITING) as pool:
        mark = daemon.mark()
        answers = [pool.submit(ask, root.http_port, "GET", "/api/version")
                   for _ in range(MOST_WAITING)]
        daemon.wait_for_log("INFO: .*: GET /api/version$", since=mark, count=len(answers))
        refused = ask(root.http_port, "GET", "/api/version")
        assert refused.status == 500
        assert refused.reason == "Cannot forward the http request to the server"
        assert daemon.messages(mark)[-1] == ("ERROR", "Too many requests wait for the SDK REST host")
        # The other listener has a queue of its own, and what is not forwarded need not wait.
        assert_serving(root)
        go_on.set()
        assert [answer.result().status for answer in answers] == [200] * MOST_WAITING
        assert ask(root.http_port, "GET", "/api/version").status == 200


def test_a_full_queue_that_fails_at_once_needs_little_stack(root, make_daemon):
    """None is taken up from within another's failure."""
    if SANITIZER:
        pytest.skip("a sanitizer's build needs more stack anyway")
    daemon = make_daemon(prefix=["prlimit", "--stack=262144"]).start()
    go_on = threading.Event()

    def close_later(connection):
        read_request(connection)
        go_on.wait(DEFAULT_LIMIT)

    with Destination(root.destination_port, close_later), \
            ThreadPoolExecutor(MOST_WAITING) as pool:
        answers = [pool.submit(ask, root.http_port, "GET", "/api/version")
                   for _ in range(MOST_WAITING)]
        daemon.wait_for_log("INFO: .*: GET /api/version$", count=len(answers))
        before = resource.prlimit(daemon.pid, resource.RLIMIT_NOFILE)
        resource.prlimit(daemon.pid, resource.RLIMIT_NOFILE, (3, before[1]))
        go_on.set()
        assert {answer.result().status for answer in answers} == {500}
        resource.prlimit(daemon.pid, resource.RLIMIT_NOFILE, before)
    assert_serving(root)
