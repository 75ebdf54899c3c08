"""Clients that take their time to read: who is being answered keeps its place, and what they leave
unread is bounded."""

import re

import pytest

from support.clients import ask, connect, read_to_end
from support.destinations import Destination, answer_bytes, answering
from support.room import (CONNECTIONS, LARGEST_REPLY, TOO_MANY_CONNECTIONS, UNREAD_ANSWERS,
                          assert_peak_below, ended_clients, wait_for_ended_clients)
from support.scratch_root import PAIRING_KEY
from support.slow_readers import REQUEST, SMALL, port_of, read_on, stall
from support.waiting import EMULATOR, SANITIZER, wait_until

pytestmark = pytest.mark.usefixtures("enough_descriptors")

KEY = {"PairingKey": PAIRING_KEY}
OTHERS = 600
HELD = re.compile(r"ERROR: .*: Answers that clients have not taken hold (\d+) bytes, the limit is "
                  r"(\d+), and a reply is refused: (?:Content-Length:|so far) (\d+)$", re.MULTILINE)


@pytest.mark.parametrize("size", [4000000, LARGEST_REPLY])
@pytest.mark.parametrize("others", ["127.0.0.1", "127.0.0.2"], ids=["own", "another"])
@pytest.mark.parametrize("tls", [False, True])
def test_a_slow_reader_gets_all_of_its_answer_while_others_connect(root, daemon, tls, others, size):
    body = bytes(size)
    with Destination(root.destination_port, answering(answer_bytes(body))):
        reader = connect(port_of(root, tls), tls, receive_buffer=SMALL)
        reader.sendall(REQUEST)
        answer = reader.recv(1)
        connections = []
        for number in range(OTHERS):
            connections.append(connect(port_of(root, tls), source=others))
            if number % 20 == 0:
                answer += reader.recv(4096)
        # Over TLS it may be for the memory that a large answer leaves to others.
        wait_for_ended_clients(daemon, OTHERS + 1 - CONNECTIONS[tls],
                               None if tls else TOO_MANY_CONNECTIONS)
        answer += read_on(reader)
    head, _, rest = answer.partition(b"\r\n\r\n")
    assert head.startswith(b"HTTP/1.1 200 OK\r\n")
    assert rest == body
    for connection in (reader, *connections):
        connection.close()


def test_a_slow_reader_that_has_sent_its_last_gets_all_of_its_answer(root, daemon):
    body = bytes(4000000)
    with Destination(root.destination_port, answering(answer_bytes(body))):
        reader = connect(root.http_port, receive_buffer=SMALL)
        reader.sendall(REQUEST)
        reader.shutdown(1)
        answer = reader.recv(1)
        connections = [connect(root.http_port, source="127.0.0.2") for _ in range(OTHERS)]
        wait_for_ended_clients(daemon, OTHERS + 1 - CONNECTIONS[False], TOO_MANY_CONNECTIONS)
        answer += read_on(reader)
    assert answer.endswith(b"\r\n\r\n" + body)
    for connection in (reader, *connections):
        connection.close()


# Smaller ones are the kernel's, which takes two megabytes at once.
@pytest.mark.parametrize("size", [4 << 20, LARGEST_REPLY])
@pytest.mark.parametrize("tls", [False, True])
def test_answers_that_are_not_read_are_bounded(root, daemon, tls, size):
    clients, statuses = [], []
    with Destination(root.destination_port, answering(answer_bytes(bytes(size)))):
        while 500 not in statuses:
            assert len(clients) < 100
            client, status = stall(root, tls)
            clients.append(client)
            statuses.append(status)
        # As many as fit have been taken up before.
        assert statuses[:-1] == [200] * (len(statuses) - 1)
        assert len(statuses) - 1 >= max(1, UNREAD_ANSWERS // size)
        assert read_to_end(clients[-1]).startswith(b" Internal error\r\n")
        lines = HELD.findall(daemon.log_text())
        assert len(lines) == 1
        held, limit, refused = map(int, lines[0])
        assert (limit, refused) == (UNREAD_ANSWERS, size)
        assert limit - size < held < limit + size + 1024
        # The other listener has room of its own, and what is not forwarded takes none.
        assert ask(port_of(root, tls), "GET", "/api/mac", tls=tls).status == 200
        assert ask(port_of(root, not tls), "GET", "/api/version", headers=KEY,
                   tls=not tls).status == 200
        # Nobody was ended so far: all have made some progress in the last ten seconds, or the
        # machine is very slow.
        for client in clients:
            client.close()
        wait_until(lambda: ask(port_of(root, tls), "GET", "/api/version", headers=KEY,
                               tls=tls).status == 200, "room for an answer")
    assert_peak_below(daemon, 64 if size == LARGEST_REPLY else 32)
    assert SANITIZER or EMULATOR or ended_clients(daemon) == 0


@pytest.mark.parametrize("tls", [False, True])
def test_a_reply_in_chunks_for_which_there_is_no_room_is_refused(root, daemon, tls):
    """Its size is known only when it has come."""
    with Destination(root.destination_port, answering(answer_bytes(bytes(LARGEST_REPLY)))):
        first, status = stall(root, tls)
        assert status == 200
    chunk = b"100000\r\n" + bytes(1 << 20) + b"\r\n"
    reply = b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n" + 12 * chunk + b"0\r\n\r\n"
    with Destination(root.destination_port, answering(reply, repeat=False)):
        answer = ask(port_of(root, tls), "GET", "/api/version", headers=KEY, tls=tls)
    assert (answer.status, answer.reason) == (500, "Internal error")
    assert len(HELD.findall(daemon.log_text())) == 1
    first.close()
