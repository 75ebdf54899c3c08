"""Clients that do not read their answers while others want the room: they are ended, but not before
they have stood still for ten seconds."""

import time

import pytest

from support.clients import ask, connect
from support.clogged import Clogged
from support.destinations import Destination, answering_by_uri
from support.room import LARGEST_REPLY, TOO_MUCH_UNREAD, UNREAD_ANSWERS, ended_clients
from support.scratch_root import PAIRING_KEY
from support.slow_readers import REQUEST, SMALL, port_of, read_on, stall

KEY = {"PairingKey": PAIRING_KEY}
HOG, STRANGER = "127.0.0.2", "127.0.0.3"
PATIENCE = 10  # seconds without progress
MIDDLE = "/api/1/router-info"
# Two of them fill the room, their heads included.
SIZES = {"/api/version": LARGEST_REPLY, MIDDLE: (4 << 20) - 1024}
# Read at every look, four times a second: less than half of the largest answer in all.
PIECE = 64 << 10


@pytest.mark.parametrize("tls", [False, True])
def test_readers_that_stand_still_make_room_after_ten_seconds(root, daemon, tls):
    port = port_of(root, tls)
    middle = f"GET {MIDDLE} HTTP/1.1\r\nHost: x\r\nPairingKey: {PAIRING_KEY}\r\n\r\n".encode()
    with Destination(root.destination_port, answering_by_uri(SIZES)):
        # This one goes on, however slowly, and keeps its place. The largest answer takes no room.
        reader = connect(port, tls, source=HOG, receive_buffer=SMALL)
        reader.sendall(REQUEST)
        answer = reader.recv(1)
        stalled = [Clogged(daemon, port, tls, HOG) for _ in range(UNREAD_ANSWERS // SIZES[MIDDLE])]
        begin = time.monotonic()
        for client in stalled:
            client.ask_for_much(middle)
        while ask(port, "GET", MIDDLE, headers=KEY, tls=tls, source=STRANGER).status != 200:
            # A record of TLS is a quarter of that.
            end = len(answer) + PIECE
            while len(answer) < end:
                answer += reader.recv(end - len(answer))
            assert time.monotonic() < begin + 4 * PATIENCE, "nobody has made room"
            time.sleep(0.25)
        # Not earlier; how much later is the machine's affair.
        assert time.monotonic() - begin >= PATIENCE
        daemon.wait_for_log(f"INFO: .*: Ended \\d+ clients to make room, the last of {HOG}: "
                            f"{TOO_MUCH_UNREAD}$")
        answer += read_on(reader)
    assert answer.endswith(b"\r\n\r\n" + bytes(LARGEST_REPLY))
    assert 1 <= ended_clients(daemon) == ended_clients(daemon, TOO_MUCH_UNREAD) <= len(stalled)
    assert len(read_on(stalled[0].connection)) < SIZES[MIDDLE]
    for client in (reader, *(each.connection for each in stalled)):
        client.close()


def test_who_stands_still_keeps_its_place_as_long_as_nobody_wants_it(root, daemon):
    with Destination(root.destination_port, answering_by_uri(SIZES)):
        client, status = stall(root, False)
        assert status == 200
        end = time.monotonic() + 2 * PATIENCE
        while time.monotonic() < end:
            assert ask(root.http_port, "GET", "/api/mac").status == 200
        assert read_on(client).endswith(b"\r\n\r\n" + bytes(LARGEST_REPLY))
    assert ended_clients(daemon) == 0
    client.close()
