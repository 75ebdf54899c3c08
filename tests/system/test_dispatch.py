"""Which requests are let through: the checks and their order, at both listeners."""

import itertools

import pytest

from support.clients import Client, ask, connect, exchange
from support.scratch_root import PAIRING_KEY

METHODS = ["GET", "POST", "PUT", "DELETE", "PATCH"]
OTHER_METHODS = ["HEAD", "OPTIONS", "TRACE", "CONNECT", "FOO", "get"]

PLAIN_ENDPOINTS = {
    ("GET", "/api/version"),
    ("GET", "/api/1/router-info"),
    ("GET", "/api/2/router-info"),
    ("PATCH", "/api/1/router-attribution-id"),
    ("PATCH", "/api/2/router-attribution-id"),
    ("PATCH", "/api/1/router-ref"),
    ("PATCH", "/api/2/router-ref"),
}
PLAIN_URIS = sorted({uri for _, uri in PLAIN_ENDPOINTS})

NEAR_MISSES = [
    "/api/", "/api/VERSION", "/api/version/", "/api//version", "/api/version?", "/api/version?a=b",
    "/api/version#a", "/api/versio", "/api/version1", "/api/%76ersion", "/api/1/router-info?a",
    "/api/3/router-info", "/api/router-info", "/api/1/router-ref/", "/api/./version",
    "/api/x/../version", "/api/macs", "/api/mac/", "/api/mac?", "/api/MAC",
]
OUTSIDE_API = ["/", "/api", "/apis/version", "/apiX", "/API/version", "/Api/version",
               "//api/version", "/ap", "/a", "/version", "/x/api/version", "/api?/", "*"]

MAX_BODY = 32768

NOT_ALLOWED = "Endpoint is not allowed with insecure connection"
WRONG_KEY = "Pairing key not as expected"
OUTSIDE = "Invalid endpoint is called"


class Asker:
    """Asks one daemon and looks at what the destination and the log got to see."""

    def __init__(self, daemon):
        self.daemon = daemon
        self.host = daemon.sdk_host
        # The first TLS connection logs that the certificate was loaded: not here, please.
        ask(daemon.root.https_port, "GET", "/", tls=True)

    def plain(self, method, uri, **options):
        return self._ask(self.daemon.root.http_port, False, method, uri, options)

    def tls(self, method, uri, key=None, **options):
        headers = {} if key is None else {"PairingKey": key}
        return self._ask(self.daemon.root.https_port, True, method, uri,
                         {"headers": headers, **options})

    def _ask(self, port, tls, method, uri, options):
        self.host.requests.clear()
        mark = self.daemon.mark()
        answer = ask(port, method, uri, tls=tls, **options)
        self.logged = self.daemon.messages(mark)
        self.forwarded = [(request.method, request.path) for request in self.host.requests]
        return answer

    def assert_refused(self, answer, status, text, request, *logged):
        assert (answer.status, answer.reason) == (status, text)
        assert self.forwarded == []
        assert self.logged == [("INFO", request), *logged]
        # The text is on the page as well.
        assert text.encode() in answer.body

    def assert_forwarded(self, answer, method, uri):
        assert (answer.status, answer.reason) == (200, "OK")
        assert self.forwarded == [(method, uri)]
        assert self.logged == [("INFO", f"{method} {uri}")]


@pytest.fixture
def asker(shared):
    return Asker(shared)


@pytest.mark.parametrize("method, uri", itertools.product(METHODS, PLAIN_URIS))
def test_the_plain_listener_accepts_its_list_and_nothing_else(asker, method, uri):
    answer = asker.plain(method, uri)
    if (method, uri) in PLAIN_ENDPOINTS:
        asker.assert_forwarded(answer, method, uri)
    else:
        asker.assert_refused(answer, 417, NOT_ALLOWED, f"{method} {uri}", ("DEBUG", NOT_ALLOWED))


@pytest.mark.parametrize("method, uri", itertools.product(["GET", "PATCH"], NEAR_MISSES))
def test_the_plain_listener_compares_whole_uris(asker, method, uri):
    answer = asker.plain(method, uri)
    asker.assert_refused(answer, 417, NOT_ALLOWED, f"{method} {uri}", ("DEBUG", NOT_ALLOWED))


def test_the_plain_listener_pays_no_attention_to_a_key(asker):
    answer = asker.plain("POST", "/api/x", headers={"PairingKey": PAIRING_KEY})
    asker.assert_refused(answer, 417, NOT_ALLOWED, "POST /api/x", ("DEBUG", NOT_ALLOWED))
    answer = asker.plain("GET", "/api/version", headers={"PairingKey": "wrong"})
    asker.assert_forwarded(answer, "GET", "/api/version")


@pytest.mark.parametrize("method, uri",
                         itertools.product(METHODS, PLAIN_URIS + ["/api/", "/api/mac?", "/api/x"]))
def test_the_tls_listener_accepts_everything_under_api_with_the_key(asker, method, uri):
    asker.assert_forwarded(asker.tls(method, uri, PAIRING_KEY), method, uri)


@pytest.mark.parametrize("uri", NEAR_MISSES)
def test_the_tls_listener_forwards_uris_as_they_are(asker, uri):
    asker.assert_forwarded(asker.tls("GET", uri, PAIRING_KEY), "GET", uri)


@pytest.mark.parametrize("key", [None, "", PAIRING_KEY.lower(), PAIRING_KEY.upper(),
                                 PAIRING_KEY[:-1], PAIRING_KEY + "x", "x" + PAIRING_KEY,
                                 PAIRING_KEY[:-1] + "Y", '"' + PAIRING_KEY + '"'])
@pytest.mark.parametrize("method, uri", [("GET", "/api/version"), ("POST", "/api/x")])
def test_the_tls_listener_refuses_a_key_that_is_not_exactly_right(asker, key, method, uri):
    answer = asker.tls(method, uri, key)
    asker.assert_refused(answer, 417, WRONG_KEY, f"{method} {uri}",
                         ("DEBUG", f"{WRONG_KEY}: '{key or ''}'"))


@pytest.mark.parametrize("name", ["PairingKey", "pairingkey", "PAIRINGKEY"])
def test_the_name_of_the_key_header_has_no_case(asker, name):
    answer = asker.tls("GET", "/api/x", headers={name: PAIRING_KEY})
    asker.assert_forwarded(answer, "GET", "/api/x")


def test_a_key_in_the_query_or_in_another_header_does_not_count(asker):
    uri = f"/api/x?PairingKey={PAIRING_KEY}"
    answer = asker.tls("GET", uri, headers={"Pairing-Key": PAIRING_KEY,
                                            "Authorization": PAIRING_KEY})
    asker.assert_refused(answer, 417, WRONG_KEY, f"GET {uri}", ("DEBUG", f"{WRONG_KEY}: ''"))


@pytest.mark.parametrize("method, uri", itertools.product(METHODS, OUTSIDE_API))
def test_nothing_outside_api_exists(asker, method, uri):
    request = f"{method} {uri}"
    for answer in (asker.plain(method, uri), asker.tls(method, uri, PAIRING_KEY),
                   asker.tls(method, uri)):
        asker.assert_refused(answer, 404, OUTSIDE, request, ("ERROR", f"{OUTSIDE}: {uri}"))


@pytest.mark.parametrize("method", METHODS[1:])
def test_the_mac_of_a_client_can_only_be_read(asker, method):
    for answer in (asker.plain(method, "/api/mac"), asker.tls(method, "/api/mac")):
        asker.assert_refused(answer, 405, "Method not allowed", f"{method} /api/mac")


def first_answer(port, request, tls):
    """What comes back up to the end of the library's error page; the connection need not end."""
    with connect(port, tls) as connection:
        connection.sendall(request)
        answer = b""
        while not answer.endswith(b"</HTML>\n"):
            part = connection.recv(65536)
            assert part, f"the connection ended after {answer!r}"
            answer += part
        return answer


@pytest.mark.parametrize("method", OTHER_METHODS)
def test_other_methods_are_answered_by_the_library(asker, method):
    asker.host.requests.clear()
    daemon = asker.daemon
    mark = daemon.mark()
    target = "h:1" if method == "CONNECT" else "/api/version"
    request = f"{method} {target} HTTP/1.1\r\nHost: x\r\nPairingKey: {PAIRING_KEY}\r\n\r\n"
    for port, tls in ((daemon.root.http_port, False), (daemon.root.https_port, True)):
        answer = first_answer(port, request.encode(), tls)
        assert answer.startswith(b"HTTP/1.1 501 Not Implemented\r\n")
        assert b"\r\nConnection: close\r\n" in answer
    assert asker.host.requests == []
    # The request was never ours.
    assert daemon.messages(mark) == 2 * [
        ("INFO", "Answered 501 to a request of 127.0.0.1 that was not taken up")]


@pytest.mark.parametrize("method, uri", [("PATCH", "/api/1/router-ref"), ("GET", "/api/version")])
@pytest.mark.parametrize("length", [1, MAX_BODY - 1, MAX_BODY])
def test_the_plain_listener_takes_bodies_up_to_the_limit(asker, method, uri, length):
    answer = asker.plain(method, uri, body=b"b" * length)
    asker.assert_forwarded(answer, method, uri)
    assert asker.host.requests[0].body == b"b" * length


@pytest.mark.parametrize("method", METHODS)
@pytest.mark.parametrize("length", [1, MAX_BODY])
def test_the_tls_listener_takes_bodies_up_to_the_limit(asker, method, length):
    answer = asker.tls(method, "/api/x", PAIRING_KEY, body=b"b" * length)
    asker.assert_forwarded(answer, method, "/api/x")
    assert asker.host.requests[0].body == b"b" * length


@pytest.mark.parametrize("length", [MAX_BODY + 1, 100000, 1 << 20])
def test_one_byte_more_is_too_long(asker, length):
    answer = asker.plain("PATCH", "/api/1/router-ref", body=b"b" * length)
    asker.assert_refused(answer, 400, "Request data too long", "PATCH /api/1/router-ref")
    answer = asker.tls("POST", "/api/x", PAIRING_KEY, body=b"b" * length)
    asker.assert_refused(answer, 400, "Request data too long", "POST /api/x")


def chunked(*chunks):
    return iter(chunks)


def test_a_body_in_chunks_is_measured_as_a_whole(asker):
    answer = asker.plain("PATCH", "/api/1/router-ref", body=chunked(b"b" * (MAX_BODY - 1), b"b"))
    asker.assert_forwarded(answer, "PATCH", "/api/1/router-ref")
    assert asker.host.requests[0].body == b"b" * MAX_BODY
    answer = asker.plain("PATCH", "/api/1/router-ref", body=chunked(b"b" * MAX_BODY, b"b"))
    asker.assert_refused(answer, 400, "Request data too long", "PATCH /api/1/router-ref")


# Each request below fails several checks: the first one in the order counts.

LONG_BODY = b"b" * (MAX_BODY + 1)


def test_the_path_is_checked_before_everything_else(asker):
    answer = asker.plain("POST", "/x", body=LONG_BODY)
    asker.assert_refused(answer, 404, OUTSIDE, "POST /x", ("ERROR", f"{OUTSIDE}: /x"))
    answer = asker.tls("POST", "/x", "wrong", body=LONG_BODY)
    asker.assert_refused(answer, 404, OUTSIDE, "POST /x", ("ERROR", f"{OUTSIDE}: /x"))


def test_the_mac_endpoint_comes_before_the_key_and_the_length(asker):
    answer = asker.tls("POST", "/api/mac", "wrong", body=LONG_BODY)
    asker.assert_refused(answer, 405, "Method not allowed", "POST /api/mac")


def test_access_is_checked_before_the_length(asker):
    answer = asker.plain("POST", "/api/x", body=LONG_BODY)
    asker.assert_refused(answer, 417, NOT_ALLOWED, "POST /api/x", ("DEBUG", NOT_ALLOWED))
    answer = asker.tls("POST", "/api/x", "wrong", body=LONG_BODY)
    asker.assert_refused(answer, 417, WRONG_KEY, "POST /api/x", ("DEBUG", f"{WRONG_KEY}: 'wrong'"))


def test_without_a_configured_key_the_tls_listener_refuses_before_it_compares(root, make_daemon,
                                                                             sdk_host):
    root.router_info.unlink()
    daemon = make_daemon().start()
    daemon.sdk_host = sdk_host
    asker = Asker(daemon)
    text = "Pairing key is not configured"
    for key in (None, "", PAIRING_KEY):
        answer = asker.tls("POST", "/api/x", key, body=LONG_BODY)
        asker.assert_refused(answer, 500, text, "POST /api/x", ("ERROR", text))
    answer = asker.tls("GET", "/x")
    asker.assert_refused(answer, 404, OUTSIDE, "GET /x", ("ERROR", f"{OUTSIDE}: /x"))
    asker.assert_forwarded(asker.plain("GET", "/api/version"), "GET", "/api/version")


def test_a_refused_request_leaves_nothing_behind_on_its_connection(shared):
    # The library closes the connection after an error; the client just connects again.
    with Client(shared.root.http_port) as client:
        for _ in range(3):
            assert client.ask("GET", "/api/x").status == 417
            assert client.ask("GET", "/api/version").status == 200
            assert client.ask("PATCH", "/api/1/router-ref", body=LONG_BODY).status == 400


@pytest.mark.parametrize("character", [b"\r", b"\t", b" ", b"\x01", b"\x1f", b"\x7f"])
def test_a_uri_that_another_server_may_read_otherwise_is_not_forwarded(shared, character):
    mark = shared.mark()
    received = len(shared.sdk_host.requests)
    answer = exchange(shared.root.https_port,
                      b"GET /api/x" + character + b"HTTP/1.1 HTTP/1.1\r\nConnection: close\r\n"
                      b"PairingKey: " + PAIRING_KEY.encode() + b"\r\n\r\n", tls=True)
    assert answer.startswith(b"HTTP/1.1 400 Invalid character in the URI\r\n")
    assert shared.messages(mark)[-1] == ("ERROR", "Invalid character in the URI")
    assert len(shared.sdk_host.requests) == received
