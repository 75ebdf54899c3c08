"""Whatever clients do, the daemon stays small: what they send, what they are sent, and all of it at
once."""

import ssl
from concurrent.futures import ThreadPoolExecutor
from itertools import chain

import pytest

from support.clients import ask, connect, read_to_end, tls_context
from support.clogged import Clogged, ask_into_full_ways, fill
from support.destinations import (Destination, HeldDestination, answering_by_uri,
                                  read_request)
from support.room import (CONNECTIONS, LARGEST_REPLY, TOO_MUCH_UNFINISHED, UNREAD_ANSWERS,
                          assert_peak_below, ended_clients)
from support.scratch_root import PAIRING_KEY
from support.waiting import EMULATOR, SANITIZER, wait_until

pytestmark = [pytest.mark.usefixtures("enough_descriptors"),
              pytest.mark.skipif(SANITIZER != "", reason="it would be another's memory too")]

KEY = {"PairingKey": PAIRING_KEY}
KEY_LINE = f"PairingKey: {PAIRING_KEY}\r\n".encode()
MEBIBYTES = 32  # whoever comes without the key
MEBIBYTES_WITH_KEY = 64
COUNT = 100
# As many lines as there is room for in a head: each takes much more than its bytes.
LINES = b"abc: " + b"x" * 58 + b"\r\n"
LINES *= 900
SHORT_LINES = b":\n" * 50000
PATCH = b"PATCH /api/1/router-ref HTTP/1.1\r\nHost: x\r\n"
HUGE = 4 << 20  # the largest body that is taken in, and refused then
LARGEST_GREETING = 131396  # the largest first message of a handshake that OpenSSL waits for


def port_of(root, tls):
    return root.https_port if tls else root.http_port


def without_key(uri, lines=b""):
    return f"GET {uri} HTTP/1.1\r\nHost: x\r\n".encode() + lines + b"\r\n"


def get(uri, lines=b""):
    return without_key(uri, KEY_LINE + lines)


def send_part(port, part, tls=False):
    """The daemon may hang up while it is sent."""
    client = connect(port, tls)
    try:
        client.sendall(part)
    except OSError:
        pass
    return client


def close_all(clients):
    for client in clients:
        client.close()


def assert_serving(root):
    for tls in (False, True):
        assert ask(port_of(root, tls), "GET", "/api/mac", tls=tls).status == 200


@pytest.mark.parametrize("lines", [LINES, SHORT_LINES], ids=["lines", "short lines"])
@pytest.mark.parametrize("tls", [False, True])
def test_whole_requests_with_many_lines_that_wait(root, daemon, tls, lines):
    clients = []
    with HeldDestination(root.destination_port) as destination:
        for _ in range(COUNT):
            mark = daemon.mark()
            clients.append(send_part(port_of(root, tls), get("/api/version", lines), tls))
            # It has come whole; or it was refused for its lines.
            daemon.wait_for_log("INFO: .*: (GET /api/version|Answered 400 to a request of .*)$",
                                since=mark)
        assert_serving(root)
        destination.go_on.set()
        with ThreadPoolExecutor(COUNT) as pool:
            statuses = set(pool.map(lambda client: client.recv(12), clients))
    assert statuses == {b"HTTP/1.1 200"} or lines == SHORT_LINES
    close_all(clients)
    assert_peak_below(daemon, MEBIBYTES)


@pytest.mark.parametrize("tls", [False, True])
def test_requests_with_many_lines_whose_answers_are_not_read(root, daemon, tls):
    clients = [fill(daemon, port_of(root, tls), tls, get("/api/mac", LINES))[0].connection
               for _ in range(20)]
    assert_serving(root)
    close_all(clients)
    assert_peak_below(daemon, MEBIBYTES)


@pytest.mark.parametrize("tls", [False, True])
def test_huge_bodies_whose_refusals_are_not_read(root, daemon, tls):
    request = PATCH + KEY_LINE + b"Content-Length: %d\r\n\r\n" % HUGE + bytes(HUGE)
    # An emulator's memory is not looked at, and with twenty the first would be ended for its silence
    # before the last one has sent its body.
    count = 5 if EMULATOR else 20
    clients = ask_into_full_ways(daemon, port_of(root, tls), tls, request, count)
    assert_serving(root)
    for client in clients:
        assert b"HTTP/1.1 400 Request data too long\r\n" in read_to_end(client)
    close_all(clients)
    assert_peak_below(daemon, MEBIBYTES)


def greet(root):
    """The beginning of a handshake that announces more than comes."""
    message = b"\x01" + LARGEST_GREETING.to_bytes(3, "big") + b"\x03\x03" + bytes(100)
    record = b"\x16\x03\x01" + len(message).to_bytes(2, "big") + message
    return send_part(root.https_port, record)


def greet_on(root):
    """The same, with nearly all that it announces."""
    client = greet(root)
    try:
        for _ in range(8):
            client.sendall(b"\x16\x03\x01\x3f\xf0" + bytes(0x3ff0))
    except OSError:
        pass
    return client


@pytest.mark.parametrize("begin", [greet, greet_on], ids=["announced", "sent"])
def test_handshakes_that_announce_much(root, daemon, begin):
    clients = []
    for number in range(2 * CONNECTIONS[True]):
        clients.append(begin(root))
        if number % 50 == 49:
            assert_serving(root)
    close_all(clients)
    assert_peak_below(daemon, MEBIBYTES)
    daemon.wait_for_no_clients()


def shake_hands_in_part(root):
    client = connect(root.https_port)
    incoming, outgoing = ssl.MemoryBIO(), ssl.MemoryBIO()
    with pytest.raises(ssl.SSLWantReadError):
        tls_context().wrap_bio(incoming, outgoing).do_handshake()
    client.sendall(outgoing.read())
    return client


def try_to(begin, *arguments):
    """The daemon may end what is begun."""
    try:
        return begin(*arguments)
    except OSError:
        return None


def unfinished(root, tls):
    port = port_of(root, tls)
    parts = [b"", PATCH, PATCH + LINES, PATCH + b"Content-Length: 4000000\r\n\r\n" + bytes(2 << 20),
             PATCH + b"Content-Length: 32768\r\n\r\n" + b"\n" * 32767,
             PATCH + b"Transfer-Encoding: chunked\r\n\r\n" + b"4\r\nbody\r\n" * 60000]
    found = [try_to(send_part, port, part, tls) for part in parts]
    if tls:
        found += [try_to(begin, root) for begin in (greet, greet_on, shake_hands_in_part)]
    return found


def whole(root, tls):
    return [try_to(send_part, port_of(root, tls), without_key(uri, lines), tls)
            for uri in ("/api/version", "/api/mac") for lines in (LINES, SHORT_LINES)]


def do_at_once(root, rounds, kinds):
    """Each kind on a thread for each listener; returns the connections."""
    jobs = [(kind, tls) for kind in kinds for tls in (False, True)]

    def work(job):
        kind, tls = job
        return [client for _ in range(rounds) for client in kind(root, tls) if client]

    with ThreadPoolExecutor(len(jobs)) as pool:
        return list(chain.from_iterable(pool.map(work, jobs)))


def test_a_reply_in_tiny_chunks_takes_what_its_bytes_take(root, daemon):
    """And not a block of libevent's for each of them."""
    count = 100000
    head = b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"

    def behave(connection):
        while read_request(connection):
            connection.sendall(head + b"1\r\nx\r\n" * count + b"0\r\n\r\n")

    with Destination(root.destination_port, behave):
        assert ask(root.http_port, "GET", "/api/version").body == b"x" * count
    assert_peak_below(daemon, 16)


def begin_chunks(root, tls):
    return send_part(port_of(root, tls), PATCH + b"Transfer-Encoding: chunked\r\n\r\n1\r\nx", tls)


def go_on_in_chunks(daemon, clients, rounds):
    """A piece of each client's after another, so that each of them comes by itself; returns the clients
    that were not ended for it."""
    for number in range(rounds):
        for client in list(clients):
            try:
                client.sendall(b"\r\n1\r\nx")
            except OSError:
                clients.remove(client)
        if number % 10 == 9:
            assert_serving(daemon.root)  # what was sent before has been read
    return clients


@pytest.mark.parametrize("tls, count", [(False, 100), (True, 30)])
def test_chunks_that_come_one_by_one_count_as_what_they_take(root, daemon, tls, count):
    """A block of libevent's for each of them."""
    clients = go_on_in_chunks(daemon, [begin_chunks(root, tls) for _ in range(count)], 600)
    assert ended_clients(daemon, TOO_MUCH_UNFINISHED) > 0
    assert_peak_below(daemon, MEBIBYTES)
    close_all(clients)
    daemon.wait_for_no_clients()


def test_a_body_that_came_in_pieces_takes_what_its_bytes_take(root, daemon):
    """While it waits for its answer. (Over TLS, where a block is larger.)"""
    begin = PATCH + KEY_LINE + b"Transfer-Encoding: chunked\r\n\r\n1\r\nx"
    clients = []
    with HeldDestination(root.destination_port) as destination:
        for _ in range(20):
            clients.append(send_part(root.https_port, begin, True))
            assert go_on_in_chunks(daemon, clients[-1:], 100)
            mark = daemon.mark()
            clients[-1].sendall(b"\r\n0\r\n\r\n")
            daemon.wait_for_log("INFO: .*: PATCH /api/1/router-ref$", since=mark)
        assert ended_clients(daemon) == 0
        destination.go_on.set()
        assert {client.recv(12) for client in clients} == {b"HTTP/1.1 200"}
    close_all(clients)
    assert_peak_below(daemon, 20)


def test_the_pieces_of_earlier_bodies_count_no_more(root, daemon, sdk_host):
    begin = PATCH + KEY_LINE + b"Transfer-Encoding: chunked\r\n\r\n1\r\nx"
    with connect(root.https_port, tls=True) as client:
        for _ in range(16):
            client.sendall(begin)
            assert go_on_in_chunks(daemon, [client], 100)
            client.sendall(b"\r\n0\r\n\r\n")
            assert client.recv(65536).startswith(b"HTTP/1.1 200 ")
    assert ended_clients(daemon) == 0


LARGE, MIDDLE = "/api/version", "/api/1/router-info"


def leave_unread(daemon, tls, request, count):
    port = port_of(daemon.root, tls)
    return [Clogged(daemon, port, tls).ask_for_much(request) for _ in range(count)]


def test_all_of_it_at_once_without_the_key(root, daemon):
    """As many unread answers as there is room for, and then all the rest: some two thousand
    connections."""
    with Destination(root.destination_port, answering_by_uri({LARGE: 256 << 10})):
        clients = leave_unread(daemon, False, without_key(LARGE), UNREAD_ANSWERS // (256 << 10))
        clients += do_at_once(root, 80, [unfinished, whole])
        assert_serving(root)
    assert_peak_below(daemon, MEBIBYTES)
    close_all(clients)
    daemon.wait_for_no_clients()


def test_all_of_it_at_once_with_the_largest_replies(root, daemon):
    """Smaller ones first: they leave just room enough for a large one, with which it may meet a
    small answer that is about to be written."""
    sizes = {LARGE: LARGEST_REPLY, MIDDLE: (2 << 20) - 1024}
    with Destination(root.destination_port, answering_by_uri(sizes)):
        clients = []
        for tls in (False, True):
            clients += leave_unread(daemon, tls, get(MIDDLE), UNREAD_ANSWERS // sizes[MIDDLE])
            clients += leave_unread(daemon, tls, get(LARGE), 1)
            # Those that have stood still for long would give way later.
            assert ask(port_of(root, tls), "GET", LARGE, headers=KEY, tls=tls).status == 500
        clients += do_at_once(root, 40, [unfinished, whole])
        assert_serving(root)
    assert_peak_below(daemon, MEBIBYTES_WITH_KEY)
    close_all(clients)
    daemon.wait_for_no_clients()


@pytest.mark.parametrize("tls", [False, True])
def test_what_was_taken_is_given_back(root, daemon, tls):
    """A second round of the same costs nothing more."""
    def take():
        with Destination(root.destination_port, answering_by_uri({LARGE: 1 << 20})):
            clients = leave_unread(daemon, tls, get(LARGE), 4)
            close_all(clients + do_at_once(root, 20, [unfinished, whole]))
            daemon.wait_for_no_clients()

    for _ in range(2):
        take()
    before = daemon.peak_resident_kib()
    descriptors = len(daemon.descriptors())
    for _ in range(3):
        take()
    assert daemon.peak_resident_kib() < before + 8 * 1024
    wait_until(lambda: len(daemon.descriptors()) <= descriptors, "no more descriptors than before")
    assert_serving(root)
