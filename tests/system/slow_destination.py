"""A destination that takes everything and never answers."""

import time
from concurrent.futures import ThreadPoolExecutor

import pytest

from support.clients import ask
from support.destinations import Destination, answer_bytes, hang, read_request
from support.scratch_root import PAIRING_KEY

TIMEOUT = 61
KEY = {"PairingKey": PAIRING_KEY}


@pytest.mark.parametrize("tls", [False, True])
def test_a_request_without_an_answer_ends_after_61_seconds(root, daemon, tls):
    port, uri = (root.https_port, "/api/x") if tls else (root.http_port, "/api/version")
    mark = daemon.mark()
    with Destination(root.destination_port, hang):
        began = time.monotonic()
        answer = ask(port, "GET", uri, headers=KEY, tls=tls, limit=2 * TIMEOUT)
        lasted = time.monotonic() - began
    assert (answer.status, answer.reason) == (500, "Timeout in forwarding request")
    # Not earlier; how much later is the machine's affair.
    assert lasted >= TIMEOUT - 0.5
    assert ("ERROR", "Timeout in forwarding request") in daemon.messages(mark)


def test_a_request_that_waits_behind_a_hanging_one_is_sent_afterwards(root, daemon):
    connections = []

    def hang_at_first(connection):
        connections.append(connection)
        if len(connections) == 1:
            hang(connection)
        while read_request(connection):
            connection.sendall(answer_bytes(b"at last"))

    with Destination(root.destination_port, hang_at_first) as destination, \
            ThreadPoolExecutor(2) as pool:
        mark = daemon.mark()
        first = pool.submit(ask, root.http_port, "GET", "/api/version", limit=2 * TIMEOUT)
        destination.wait_for_connections(1)
        daemon.wait_for_log("GET /api/version$", since=mark)
        second = pool.submit(ask, root.http_port, "GET", "/api/1/router-info", limit=3 * TIMEOUT)
        assert first.result().reason == "Timeout in forwarding request"
        assert second.result().body == b"at last"
