"""What of a request reaches the destination, and what of its answer comes back."""

import subprocess
import threading
import time
from concurrent.futures import ThreadPoolExecutor
from email.utils import format_datetime, parsedate_to_datetime
from socket import AF_INET, IPPROTO_TCP, SOCK_STREAM, TCP_NODELAY

import pytest

from sdk_rest_host import Answer
from support.clients import Client, ask, connect, exchange, read_to_end
from support.destinations import Destination, answer_bytes, answering, hang, read_request
from support.scratch_root import PAIRING_KEY
from support.waiting import DEFAULT_LIMIT

KEY = {"PairingKey": PAIRING_KEY}
ALL_BYTES = bytes(range(256)) * 100

# Seconds that time() may be late: it tells the last tick of the clock.
CLOCK_LAG = 0.1

# What the daemon puts on an answer by itself.
OWN_HEADERS = {"date", "content-length", "connection"}


def curl(*arguments):
    result = subprocess.run(["curl", "--silent", "--show-error", "--noproxy", "*", "--max-time",
                             "30", *map(str, arguments)], capture_output=True, check=False)
    assert result.returncode == 0, result.stderr
    return result.stdout


def names(answer):
    return {name.lower() for name, _ in answer.headers}


def test_curl_gets_an_answer_over_both_listeners(root, daemon, sdk_host):
    plain = curl("--write-out", " %{http_code}", f"http://127.0.0.1:{root.http_port}/api/version")
    assert plain == b'{"method": "GET", "path": "/api/version", "bodyLength": 0}\n 200'
    tls = curl("--write-out", " %{http_code}", "--cacert", root.certificate, "--header",
               f"PairingKey: {PAIRING_KEY}", "--data-binary", "12345",
               f"https://127.0.0.1:{root.https_port}/api/x?y=1")
    assert tls == b'{"method": "POST", "path": "/api/x?y=1", "bodyLength": 5}\n 200'


@pytest.mark.parametrize("body", [None, b"", b"x" * 10])
@pytest.mark.parametrize("method", ["GET", "POST", "PUT", "DELETE", "PATCH"])
def test_exactly_two_headers_reach_the_destination(shared, method, body):
    shared.sdk_host.requests.clear()
    headers = {**KEY, "Content-Type": "application/json", "Cookie": "a=b", "User-Agent": "test",
               "Accept": "*/*", "X-Forwarded-For": "192.0.2.1", "Authorization": "Basic x",
               "Connection": "keep-alive", "Host": "router.invalid"}
    assert ask(shared.root.https_port, method, "/api/x", body, headers, tls=True).status == 200
    request, = shared.sdk_host.requests
    assert sorted(request.headers) == [("Content-Length", str(len(body or b""))),
                                       ("Host", "127.0.0.1")]
    assert request.body == (body or b"")


@pytest.mark.parametrize("tls", [False, True], ids=["http", "https"])
def test_the_host_header_is_the_configured_address(root, make_daemon, sdk_host, tls):
    root.settings["agentDstAddr"] = "localhost"
    make_daemon().start()
    port = root.https_port if tls else root.http_port
    assert ask(port, "GET", "/api/version", headers=KEY, tls=tls).status == 200
    assert ("Host", "localhost") in sdk_host.requests[0].headers


@pytest.mark.parametrize("tls", [False, True], ids=["http", "https"])
@pytest.mark.parametrize("prefix", ["", "/sdk", "/sdk/v1", "sdk", "/sdk?x="])
def test_the_prefix_is_put_before_the_uri_as_it_is(root, make_daemon, prefix, tls):
    root.settings["agentPrefix"] = prefix
    seen = []

    def note(connection):
        seen.append(connection.recv(65536).split(b"\r\n")[0].decode())
        connection.sendall(answer_bytes(b"ok"))

    with Destination(root.destination_port, note):
        daemon = make_daemon().start()
        mark = daemon.mark()
        port = root.https_port if tls else root.http_port
        assert ask(port, "GET", "/api/version", headers=KEY, tls=tls).status == 200
    assert seen == [f"GET {prefix}/api/version HTTP/1.1"]
    # The log has the URI that the client used.
    assert daemon.messages(mark)[-1] == ("INFO", "GET /api/version")


@pytest.mark.parametrize("uri", ["/api/a?b=c&d=e", "/api/a;b", "/api/%2e%2e/%00", "/api/a%20b",
                                 "/api/?", "/api/" + "x" * 4000, "/api/a?b=%0d%0aX:y"])
def test_the_uri_reaches_the_destination_byte_for_byte(shared, uri):
    shared.sdk_host.requests.clear()
    assert ask(shared.root.https_port, "GET", uri, headers=KEY, tls=True).status == 200
    assert shared.sdk_host.requests[0].path == uri


def test_a_binary_body_reaches_the_destination_byte_for_byte(shared):
    shared.sdk_host.requests.clear()
    assert ask(shared.root.http_port, "PATCH", "/api/2/router-ref", ALL_BYTES).status == 200
    assert ask(shared.root.https_port, "PUT", "/api/x", ALL_BYTES, KEY, tls=True).status == 200
    assert [request.body for request in shared.sdk_host.requests] == [ALL_BYTES, ALL_BYTES]


def relayed(daemon, answer, tls=False, **options):
    host = daemon.sdk_host
    usual = host.respond
    host.respond = lambda request: answer
    try:
        if tls:
            return ask(daemon.root.https_port, "GET", "/api/x", headers=KEY, tls=True)
        return ask(daemon.root.http_port, "GET", "/api/version", **options)
    finally:
        host.respond = usual


@pytest.mark.parametrize("tls", [False, True])
def test_a_binary_body_comes_back_byte_for_byte(shared, tls):
    answer = relayed(shared, Answer(body=ALL_BYTES), tls)
    assert answer.body == ALL_BYTES
    assert answer.header("Content-Length") == str(len(ALL_BYTES))


@pytest.mark.parametrize("tls", [False, True])
def test_a_body_of_megabytes_comes_back_whole(shared, tls):
    body = ALL_BYTES * 160
    assert relayed(shared, Answer(body=body), tls).body == body


@pytest.mark.parametrize("status, reason", [
    (200, "OK"), (200, "Totally fine"), (200, ""), (201, "Created"), (202, "Accepted"),
    (299, "With  blanks, and: punctuation!"), (301, "Moved"), (400, "Bad Request"),
    (401, "Unauthorized"), (404, "Not Found"), (417, "From the destination"),
    (500, "Internal Server Error"), (503, "Busy"), (599, "Odd")])
@pytest.mark.parametrize("body", [b"", b"the body"])
def test_status_reason_and_body_come_back(shared, status, reason, body):
    mark = shared.mark()
    answer = relayed(shared, Answer(status, reason, body=body))
    assert (answer.status, answer.reason, answer.body) == (status, reason, body)
    # The destination's word is not ours to comment on.
    assert shared.messages(mark) == [("INFO", "GET /api/version")]


@pytest.mark.parametrize("status", [204, 304])
def test_an_answer_that_has_no_body_comes_back_without_one(shared, status):
    with Client(shared.root.http_port) as client:
        usual = shared.sdk_host.respond
        shared.sdk_host.respond = lambda request: Answer(status, "Nothing")
        try:
            answers = [client.ask("GET", "/api/version") for _ in range(2)]
        finally:
            shared.sdk_host.respond = usual
        # The connection is in step: what follows is understood.
        assert client.ask("GET", "/api/version").status == 200
    for answer in answers:
        assert (answer.status, answer.reason, answer.body) == (status, "Nothing", b"")


@pytest.mark.parametrize("content_type", ["application/json", "text/html; charset=iso-8859-1",
                                          "application/octet-stream", "x", "image/png;a=\"b c\""])
def test_the_content_type_comes_back(shared, content_type):
    answer = relayed(shared, Answer(headers=[("Content-Type", content_type)], body=b"x"))
    assert ("Content-Type", content_type) in answer.headers


def test_without_a_content_type_none_is_made_up(shared):
    assert relayed(shared, Answer(body=b"x")).header("Content-Type") is None


@pytest.mark.parametrize("tls", [False, True])
def test_no_other_header_comes_back(shared, tls):
    headers = [("Content-Type", "text/plain"), ("Set-Cookie", "a=b"), ("Server", "s"),
               ("Cache-Control", "no-store"), ("ETag", "x"), ("Location", "/x"),
               ("WWW-Authenticate", "Basic"), ("X-Custom", "y"), ("Content-Encoding", "gzip")]
    answer = relayed(shared, Answer(headers=headers, body=b"x"), tls)
    assert names(answer) - OWN_HEADERS == {"content-type"}


def test_each_answer_has_the_date_of_its_second(root, daemon, sdk_host):
    seen = set()
    with Client(root.http_port) as client:
        while len(seen) < 2:
            begin = int(time.time() - CLOCK_LAG)
            text = client.ask("GET", "/api/version").header("Date")
            date = parsedate_to_datetime(text)
            assert begin <= date.timestamp() <= time.time()
            assert text == format_datetime(date, usegmt=True)
            seen.add(text)


def test_an_answer_of_http_1_0_has_no_date(root, daemon, sdk_host):
    answer = exchange(root.http_port, b"GET /api/version HTTP/1.0\r\n\r\n")
    assert b"\r\nContent-Type: " in answer
    assert b"\r\nDate: " not in answer


def test_an_answer_in_chunks_comes_back_in_one_piece(root, daemon):
    chunks = (b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"
              b"4\r\nhalf\r\n6\r\n a bit\r\n0\r\n\r\n")
    with Destination(root.destination_port, answering(chunks)):
        for _ in range(2):
            answer = ask(root.http_port, "GET", "/api/version")
            assert answer.body == b"half a bit"
            assert answer.header("Content-Length") == "10"
            assert answer.header("Transfer-Encoding") is None


@pytest.mark.parametrize("head", [b"HTTP/1.0 200 OK\r\n\r\n",
                                  b"HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n"])
def test_an_answer_that_ends_with_its_connection_comes_back_whole(root, daemon, head):
    with Destination(root.destination_port, answering(head + b"to the end", repeat=False)):
        for _ in range(3):
            assert ask(root.http_port, "GET", "/api/version").body == b"to the end"


def test_an_interim_100_is_passed_over(root, daemon):
    answer = b"HTTP/1.1 100 Continue\r\n\r\n" + answer_bytes(b"final")
    with Destination(root.destination_port, answering(answer)):
        for _ in range(2):
            assert ask(root.http_port, "GET", "/api/version").body == b"final"


def test_each_listener_has_one_connection_and_keeps_it(root, daemon):
    with Destination(root.destination_port, answering(answer_bytes(b"ok"))) as destination:
        for _ in range(10):
            assert ask(root.http_port, "GET", "/api/version").status == 200
            assert ask(root.https_port, "GET", "/api/x", headers=KEY, tls=True).status == 200
        assert destination.accepted == 2


def test_requests_of_several_clients_are_answered_in_turn(root, daemon, sdk_host):
    with Client(root.http_port) as first, Client(root.http_port) as second:
        for number in range(20):
            for client, name in ((first, "1"), (second, "2")):
                answer = client.ask("PATCH", f"/api/{name}/router-ref", body=b"b" * number)
                assert f'"path": "/api/{name}/router-ref", "bodyLength": {number}' in \
                    answer.body.decode()


def test_a_client_that_has_sent_its_last_gets_a_large_answer_whole(root, daemon):
    with Destination(root.destination_port, answering(answer_bytes(b"x" * 3500000))):
        answer = exchange(root.http_port, b"GET /api/version HTTP/1.1\r\n\r\n")
    assert answer.endswith(b"\r\n\r\n" + b"x" * 3500000)


def test_a_client_of_http_1_0_is_served(root, daemon, sdk_host):
    answer = exchange(root.http_port, b"GET /api/version HTTP/1.0\r\n\r\n")
    assert answer.startswith(b"HTTP/1.0 200 OK\r\n")
    assert answer.endswith(b'"bodyLength": 0}\n')


def test_a_client_that_waits_for_100_continue_gets_it(root, daemon, sdk_host):
    with connect(root.http_port) as client:
        client.sendall(b"PATCH /api/1/router-ref HTTP/1.1\r\nHost: x\r\nConnection: close\r\n"
                       b"Content-Length: 2\r\nExpect: 100-continue\r\n\r\n")
        assert client.recv(65536) == b"HTTP/1.1 100 Continue\r\n\r\n"
        client.sendall(b"ab")
        assert read_to_end(client).startswith(b"HTTP/1.1 200 OK\r\n")
    assert sdk_host.requests[0].body == b"ab"


def peers_without_delay(daemon):
    """The ports that its connections over IPv4 lead to; each of them must have TCP_NODELAY."""
    found = []
    for descriptor in daemon.descriptors():
        connection = daemon.borrow_socket(descriptor)
        if connection is None or connection.type != SOCK_STREAM:
            continue
        with connection:
            try:
                peer = connection.getpeername()
            except OSError:
                continue  # it listens
            if connection.family == AF_INET:
                assert connection.getsockopt(IPPROTO_TCP, TCP_NODELAY) != 0
                found.append(peer[1])
    return sorted(found)


def test_nothing_waits_for_acknowledgements(root, daemon):
    with Client(root.http_port) as plain, Client(root.https_port, tls=True) as tls:
        # The destination is connected anew each time, in the second round after a failure.
        for _ in range(2):
            with Destination(root.destination_port, answering(answer_bytes(b"ok"))):
                assert plain.ask("GET", "/api/version").status == 200
                assert tls.ask("GET", "/api/x", headers=KEY).status == 200
                clients = [client.connection.sock.getsockname()[1] for client in (plain, tls)]
                assert peers_without_delay(daemon) == sorted(
                    [*clients, root.destination_port, root.destination_port])
            assert plain.ask("GET", "/api/version").status == 500
            assert tls.ask("GET", "/api/x", headers=KEY).status == 500


def test_a_waiting_request_gets_a_connection_without_delay_too(root, daemon):
    go_on = threading.Event()

    def answer_and_close(connection):
        read_request(connection)
        go_on.wait(DEFAULT_LIMIT)
        connection.sendall(answer_bytes(b"ok", headers=b"Connection: close\r\n"))

    def hang_then_answer(connection):
        (answer_and_close if destination.accepted == 1 else hang)(connection)

    with Destination(root.destination_port, hang_then_answer) as destination, \
            Client(root.http_port) as first, Client(root.http_port) as second:
        with ThreadPoolExecutor(2) as pool:
            answers = []
            for client in (first, second):
                answers.append(pool.submit(client.ask, "GET", "/api/version"))
                daemon.wait_for_log("INFO: .*: GET /api/version$", count=len(answers))
            go_on.set()
            assert answers[0].result().status == 200
            destination.wait_for_connections(2)
            # The thread that has connected asks for no delay before it answers.
            assert ask(root.http_port, "GET", "/api/mac").status == 200
            assert root.destination_port in peers_without_delay(daemon)
            destination.drop()
            assert answers[1].result().status == 500


def test_a_destination_that_comes_late_is_reached(root, daemon):
    answer = ask(root.http_port, "GET", "/api/version")
    assert (answer.status, answer.reason) == (500, "Destination request failed")
    with Destination(root.destination_port, answering(answer_bytes(b"ok"))):
        assert ask(root.http_port, "GET", "/api/version").status == 200
