"""Clients that do not read their answers while others want the room: they are ended, but not before
they have stood still for ten seconds."""

import time

import pytest

from support.clients import ask, connect
from support.destinations import Destination, answer_bytes, answering
from support.room import TOO_MUCH_UNREAD, ended_clients
from support.scratch_root import PAIRING_KEY
from support.slow_readers import REQUEST, SMALL, port_of, read_on, stall

KEY = {"PairingKey": PAIRING_KEY}
PATIENCE = 10  # seconds without progress
SIZE = 4 << 20
PIECE = 64 << 10


@pytest.mark.parametrize("tls", [False, True])
def test_a_reader_that_stands_still_makes_room_after_ten_seconds(root, daemon, tls):
    port = port_of(root, tls)
    with Destination(root.destination_port, answering(answer_bytes(bytes(SIZE)))):
        reader = connect(port, tls, source="127.0.0.2", receive_buffer=SMALL)
        reader.sendall(REQUEST)
        answer = reader.recv(1)
        status, stalled = 200, []
        while status == 200:
            assert len(stalled) < 50
            client, status = stall(root, tls, "127.0.0.2")
            stalled.append(client)
        begin = time.monotonic()
        while ask(port, "GET", "/api/version", headers=KEY, tls=tls,
                  source="127.0.0.3").status != 200:
            # This one goes on, however slowly, and keeps its place.
            answer += reader.recv(PIECE)
            assert time.monotonic() < begin + 4 * PATIENCE, "nobody has made room"
        # Not earlier; how much later is the machine's affair.
        assert time.monotonic() - begin >= PATIENCE - 1
        daemon.wait_for_log(f"INFO: .*: Ended \\d+ clients to make room, the last of 127.0.0.2: "
                            f"{TOO_MUCH_UNREAD}$")
        assert ended_clients(daemon) == ended_clients(daemon, TOO_MUCH_UNREAD) < len(stalled)
        answer += read_on(reader)
    assert answer.endswith(b"\r\n\r\n" + bytes(SIZE))
    assert any(len(read_on(client)) < SIZE for client in stalled[:-1])
    for client in (reader, *stalled):
        client.close()


def test_who_stands_still_keeps_its_place_as_long_as_nobody_wants_it(root, daemon):
    with Destination(root.destination_port, answering(answer_bytes(bytes(SIZE)))):
        client, status = stall(root, False)
        assert status == 200
        end = time.monotonic() + 2 * PATIENCE
        while time.monotonic() < end:
            assert ask(root.http_port, "GET", "/api/mac").status == 200
        assert read_on(client).endswith(b"\r\n\r\n" + bytes(SIZE))
    assert ended_clients(daemon) == 0
    client.close()
