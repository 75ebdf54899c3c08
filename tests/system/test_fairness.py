"""One device that takes all that it can get, and another that wants its due: each address has a
share of its own in the connections and in the turns at the destination."""

import re
import time
from collections import Counter
from concurrent.futures import ThreadPoolExecutor

import pytest

from support.clients import connect, read_to_end
from support.destinations import HeldDestination
from support.programs import connect_flood, needs_cc
from support.room import (CONNECTIONS, TOO_MANY_CONNECTIONS, WAITING, ended_clients,
                          wait_for_clients, wait_for_ended_clients)
from support.scratch_root import PAIRING_KEY

pytestmark = pytest.mark.usefixtures("enough_descriptors")

HOG, HONEST, ANOTHER = "127.0.0.2", "127.0.0.3", "127.0.0.4"
PAUSES = [0, 0.02, 0.05, 0.1]  # seconds between a connect and the request
REQUESTS = 60
REFUSED = b"HTTP/1.1 500 Cannot forward the http request to the server\r\n"


def port_of(root, tls):
    return root.https_port if tls else root.http_port


def request_with(body):
    return (f"PATCH /api/1/router-ref HTTP/1.1\r\nHost: x\r\nPairingKey: {PAIRING_KEY}\r\n"
            f"Connection: close\r\nContent-Length: {len(body)}\r\n\r\n").encode() + body


def ask_slowly(port, tls, pause):
    """The status, or what happened instead."""
    try:
        with connect(port, tls, source=HONEST) as client:
            time.sleep(pause)
            client.sendall(request_with(b"x"))
            return read_to_end(client)[9:12]
    except OSError as error:
        return repr(error)


@needs_cc
@pytest.mark.parametrize("text", ["", "GET /api/ver", "GET /api/mac HTTP/1.1\r\n\r\n"],
                         ids=["nothing", "half a request", "a request"])
def test_a_device_that_connects_as_fast_as_it_can_pushes_no_other_out(root, daemon, sdk_host,
                                                                      tmp_path, text):
    def work(tls):
        return Counter(ask_slowly(port_of(root, tls), tls, PAUSES[number % len(PAUSES)])
                       for number in range(REQUESTS))

    with connect_flood(tmp_path, root.http_port, HOG, text=text), \
            connect_flood(tmp_path, root.https_port, HOG, text=text), ThreadPoolExecutor(2) as pool:
        if text.endswith("\r\n\r\n"):  # its answer ends each connection
            daemon.wait_for_log("INFO: .*: GET /api/mac$", count=1000)
        else:
            wait_for_ended_clients(daemon, 1000, TOO_MANY_CONNECTIONS)
        assert list(pool.map(work, (False, True))) == [{b"200": REQUESTS}] * 2
    daemon.wait_for_no_clients()


@pytest.mark.parametrize("tls", [False, True])
def test_the_address_with_the_most_connections_makes_room(root, daemon, tls):
    port, room = port_of(root, tls), CONNECTIONS[tls]
    first = connect(port, source=HONEST)
    others = [connect(port, source=ANOTHER) for _ in range(room // 4)]
    hogs = [connect(port, source=HOG) for _ in range(room - room // 4 - 1)]
    wait_for_clients(daemon, room)
    assert ended_clients(daemon) == 0
    others += [connect(port, source=ANOTHER) for _ in range(10)]
    wait_for_ended_clients(daemon, 10, TOO_MANY_CONNECTIONS)
    daemon.wait_for_log(f"the last of {re.escape(HOG)}: {TOO_MANY_CONNECTIONS}$")
    # The hog's own that have waited longest.
    for hog in hogs[:10]:
        assert hog.recv(1) == b""
    for stays in (first, *others, *hogs[10:]):
        stays.setblocking(False)
        with pytest.raises(BlockingIOError):
            stays.recv(1)
    assert ended_clients(daemon) == 10
    for connection in (first, *others, *hogs):
        connection.close()


@pytest.mark.parametrize("tls", [False, True])
def test_a_device_alone_may_use_all_the_room(root, daemon, tls):
    clients = [connect(port_of(root, tls), source=HOG) for _ in range(CONNECTIONS[tls])]
    wait_for_clients(daemon, CONNECTIONS[tls])
    assert ended_clients(daemon) == 0
    for client in clients:
        client.close()


def send_requests(root, daemon, tls, source, bodies):
    """Returns their connections when all of them have been taken up, one after another."""
    clients = []
    for body in bodies:
        mark = daemon.mark()
        clients.append(connect(port_of(root, tls), tls, source=source))
        clients[-1].sendall(request_with(body))
        daemon.wait_for_log("INFO: .*: PATCH /api/1/router-ref$", since=mark)
    return clients


def answers_of(clients):
    with ThreadPoolExecutor(len(clients)) as pool:
        answers = list(pool.map(read_to_end, clients))
    for client in clients:
        client.close()
    return answers


@pytest.mark.parametrize("tls", [False, True])
def test_a_device_with_many_requests_delays_another_by_one(root, daemon, tls):
    with HeldDestination(root.destination_port) as destination:
        hogs = send_requests(root, daemon, tls, HOG, [b"hog %d" % n for n in range(WAITING - 10)])
        honest = send_requests(root, daemon, tls, HONEST, [b"honest 0", b"honest 1"])
        another = send_requests(root, daemon, tls, ANOTHER, [b"another 0"])
        destination.go_on.set()
        for answer in answers_of([*hogs, *honest, *another]):
            assert answer.startswith(b"HTTP/1.1 200 OK\r\n")
        bodies = destination.bodies
    assert len(bodies) == WAITING - 7
    # The hog's first one is at the destination already.
    assert bodies[0] == b"hog 0"
    assert set(bodies[1:4]) == {b"honest 0", b"another 0", b"hog 1"}
    assert bodies.index(b"honest 0") < bodies.index(b"hog 1")
    assert bodies.index(b"honest 1") < bodies.index(b"hog 3")
    # Of each address in the order in which they came.
    assert [body for body in bodies if body.startswith(b"hog")] == [
        b"hog %d" % number for number in range(WAITING - 10)]


@pytest.mark.parametrize("tls", [False, True])
def test_three_hundred_requests_of_one_device_leave_room_for_another(root, daemon, tls):
    count = min(300, CONNECTIONS[tls] - 20)
    with HeldDestination(root.destination_port) as destination:
        hogs = send_requests(root, daemon, tls, HOG, [b"hog %d" % n for n in range(count)])
        for answer in answers_of(hogs[WAITING + 1:]):
            assert answer.startswith(REFUSED)
        mark = daemon.mark()
        honest = send_requests(root, daemon, tls, HONEST, [b"honest"])
        # One of the hog's has made room: its latest.
        daemon.wait_for_log("ERROR: .*: Too many requests wait for the SDK REST host$", since=mark)
        destination.go_on.set()
        assert answers_of(honest)[0].startswith(b"HTTP/1.1 200 OK\r\n")
        answers = answers_of(hogs[:WAITING + 1])
        bodies = destination.bodies
    assert bodies[:2] == [b"hog 0", b"honest"]
    served = [answer.startswith(b"HTTP/1.1 200 OK\r\n") for answer in answers]
    # Whether the one that is at the destination counts as waiting is not told apart here.
    assert sum(served) in (WAITING - 1, WAITING)
    assert served == sorted(served, reverse=True)
    assert all(answer.startswith((b"HTTP/1.1 200 OK\r\n", REFUSED)) for answer in answers)
    assert sum(body.startswith(b"hog") for body in bodies) == sum(served)
