"""What clients leave in the log that the daemon ends, and those that libevent answers by itself."""

import re
import time

import pytest

from support.clients import connect, exchange
from support.programs import connect_flood, needs_cc
from support.room import CONNECTIONS, ENDED, ended_clients
from support.scratch_root import PAIRING_KEY
from support.waiting import wait_until

pytestmark = pytest.mark.usefixtures("enough_descriptors")

KEY_LINE = f"PairingKey: {PAIRING_KEY}\r\n".encode()
START = b"PATCH /api/1/router-ref HTTP/1.1\r\nHost: x\r\n" + KEY_LINE

# What libevent answers by itself.
NOT_WHOLE = {
    "a large head": (400, START + b"X: " + b"x" * 70000 + b"\r\n\r\n"),
    "a large first line": (400, b"GET /api/" + b"x" * 70000 + b" HTTP/1.1\r\n\r\n"),
    "no first line": (400, b"nonsense\r\n\r\n"),
    "no colon": (400, START + b"nonsense\r\n\r\n"),
    "a large body": (413, START + b"Content-Length: 4194305\r\n\r\n"),
    "a large body in chunks": (413, START + b"Transfer-Encoding: chunked\r\n\r\n400001\r\n"),
    "another method": (501, b"OPTIONS /api/version HTTP/1.1\r\nHost: x\r\n\r\n"),
}

# What is the daemon's own answer, or its destination's.
WHOLE = {
    "elsewhere": b"GET /elsewhere HTTP/1.1\r\n",
    "no endpoint": b"GET /api/x HTTP/1.1\r\n",
    "the MAC address": b"GET /api/mac HTTP/1.1\r\n",
    "forwarded": b"GET /api/version HTTP/1.1\r\n" + KEY_LINE,
}


def port_of(root, tls):
    return root.https_port if tls else root.http_port


def lines_about_answers(daemon, mark):
    return [text for level, text in daemon.messages(mark)
            if level == "INFO" and text.startswith("Answered ")]


@pytest.mark.parametrize("status, request_bytes", NOT_WHOLE.values(), ids=NOT_WHOLE)
@pytest.mark.parametrize("tls", [False, True])
def test_what_libevent_answers_is_one_line(root, daemon, tls, status, request_bytes):
    for number in range(1, 4):
        answer = exchange(port_of(root, tls), request_bytes, tls)
        assert answer.startswith(b"HTTP/1.1 %d " % status)
        line = f"Answered {status} to a request of 127.0.0.1 that was not taken up"
        daemon.wait_for_log(f"INFO: .*: {line}$", count=number)
        assert lines_about_answers(daemon, 0) == [line] * number
    # And nothing worse.
    assert [text for level, text in daemon.messages() if level == "ERROR"] == []


def test_that_line_has_the_address_of_the_client(root, daemon):
    with connect(root.http_port, source="127.0.0.2") as client:
        client.sendall(b"nonsense\r\n\r\n")
        assert client.recv(16).startswith(b"HTTP/1.1 400")
    daemon.wait_for_log(
        "INFO: .*: Answered 400 to a request of 127.0.0.2 that was not taken up$")


@pytest.mark.parametrize("head", WHOLE.values(), ids=WHOLE)
@pytest.mark.parametrize("tls", [False, True])
def test_what_has_come_whole_has_no_such_line(root, daemon, sdk_host, tls, head):
    mark = daemon.mark()
    answer = exchange(port_of(root, tls), head + b"Connection: close\r\n\r\n", tls)
    assert answer.startswith(b"HTTP/1.1 ")
    assert lines_about_answers(daemon, mark) == []


@needs_cc
@pytest.mark.parametrize("tls", [False, True])
def test_clients_that_are_ended_are_a_line_a_second(root, make_daemon, tmp_path, tls):
    daemon = make_daemon(options=[]).start()
    begin = time.monotonic()
    with connect_flood(tmp_path, port_of(root, tls), "127.0.0.2", kept=2 * CONNECTIONS[tls]):
        wait_until(lambda: len(ENDED.findall(daemon.log_text())) >= 3, "three lines")
    wait_until(lambda: not daemon.client_connections(), "the end of the clients")
    seconds = time.monotonic() - begin
    lines = ENDED.findall(daemon.log_text())
    assert 3 <= len(lines) <= seconds + 1
    assert {(address, reason) for _, address, reason in lines} == {
        ("127.0.0.2", "too many connections")}
    # Each of them was counted, and is not spoken of otherwise.
    assert ended_clients(daemon) > 10 * len(lines)
    others = [line for line in daemon.log_text().splitlines() if not ENDED.match(line)]
    assert len(others) < 20, "\n".join(others[-20:])


@pytest.mark.parametrize("tls", [False, True])
def test_each_client_that_is_ended_is_counted_once(root, daemon, tls):
    room, more = CONNECTIONS[tls], 77
    clients = [connect(port_of(root, tls)) for _ in range(room + more)]
    wait_until(lambda: ended_clients(daemon) >= more, "the lines")
    wait_until(lambda: len(daemon.client_connections()) == room, "the others")
    for client in clients:
        client.close()
    # Whoever leaves by himself was not ended. A line that was due has come by then.
    daemon.wait_for_no_clients()
    mark = daemon.mark()
    clients = [connect(port_of(root, tls)) for _ in range(room + 1)]
    wait_until(lambda: ended_clients(daemon, since=mark) >= 1, "the next line")
    assert ended_clients(daemon) == more + 1
    assert re.search("the last of 127.0.0.1: too many connections$", daemon.log_text(), re.M)
    for client in clients:
        client.close()
