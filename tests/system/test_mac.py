"""GET /api/mac from outside."""

from http.client import HTTPConnection

import pytest

from support.clients import ask
from support.clients import Client
from support.room import assert_peak_below
from support.scratch_root import PAIRING_KEY
from support.waiting import DEFAULT_LIMIT


@pytest.mark.parametrize("tls", [False, True], ids=["plain", "tls"])
def test_tells_the_asking_client_its_mac_without_a_key(root, daemon, tls):
    port = root.https_port if tls else root.http_port
    answer = ask(port, "GET", "/api/mac", tls=tls)
    assert (answer.status, answer.reason) == (200, "OK")
    assert answer.body == b"02:00:5e:10:00:01"
    assert answer.header("Content-Type") == "text/plain; charset=UTF-8"
    assert answer.header("Content-Length") == "17"


def test_each_client_is_told_its_own(root, daemon):
    root.write_device_list([{"ip": ["127.0.0.1"], "mac": "02:00:5e:10:00:01"},
                            {"ip": ["127.0.0.2"], "mac": "02:00:5e:10:00:02"}])
    for last, status in ((2, 200), (1, 200), (3, 500)):
        client = HTTPConnection("127.0.0.1", root.http_port, timeout=DEFAULT_LIMIT,
                                source_address=(f"127.0.0.{last}", 0))
        client.request("GET", "/api/mac")
        answer = client.getresponse()
        assert answer.status == status
        if status == 200:
            assert answer.read() == b"02:00:5e:10:00:0%d" % last
        client.close()
    assert ("ERROR", "No MAC found for IP: 127.0.0.3") in daemon.messages()


def test_the_connection_is_kept(root, daemon):
    with Client(root.http_port) as client:
        for _ in range(3):
            assert client.ask("GET", "/api/mac").status == 200
        assert len(daemon.client_connections()) == 1


def test_other_methods_are_not_allowed(root, daemon):
    for method in ("POST", "PUT", "PATCH", "DELETE"):
        answer = ask(root.http_port, method, "/api/mac")
        assert (answer.status, answer.reason) == (405, "Method not allowed")


def test_with_a_query_it_is_an_ordinary_endpoint(root, daemon, sdk_host):
    assert ask(root.http_port, "GET", "/api/mac?x").status == 417
    assert ask(root.https_port, "GET", "/api/mac?x", tls=True).status == 417
    answer = ask(root.https_port, "GET", "/api/mac?x", headers={"PairingKey": PAIRING_KEY}, tls=True)
    assert answer.status == 200
    assert [request.path for request in sdk_host.requests] == ["/api/mac?x"]


def test_an_unknown_client_and_a_missing_list_are_internal_errors(root, daemon):
    root.write_device_list([])
    mark = daemon.mark()
    answer = ask(root.http_port, "GET", "/api/mac")
    assert (answer.status, answer.reason) == (500, "Internal error")
    assert ("ERROR", "No MAC found for IP: 127.0.0.1") in daemon.messages(mark)
    root.device_list.unlink()
    mark = daemon.mark()
    assert ask(root.http_port, "GET", "/api/mac").status == 500
    path = root.device_list
    assert ("ERROR", f"File can not be read: {path}. Error: Failed to lock file {path}: "
            "2 No such file or directory") in daemon.messages(mark)


MEBIBYTE = 1 << 20
EXCESSIVE = {
    "brackets without an end": "[" * MEBIBYTE,
    "brackets": "[" * (MEBIBYTE // 2) + "]" * (MEBIBYTE // 2),
    "numbers": "[" + "1," * (MEBIBYTE // 2 - 2) + "1]",
    "objects": '{"a":' * (MEBIBYTE // 6) + "1" + "}" * (MEBIBYTE // 6),
}


@pytest.mark.parametrize("text", EXCESSIVE.values(), ids=EXCESSIVE)
def test_a_list_that_would_take_much_memory_is_an_internal_error(root, daemon, text):
    root.device_list.write_text(text)
    for tls in (False, True):
        answer = ask(root.https_port if tls else root.http_port, "GET", "/api/mac", tls=tls)
        assert (answer.status, answer.reason) == (500, "Internal error")
    lines = [message for level, message in daemon.messages() if level == "ERROR"]
    assert lines == ["Unexpected failure: The device list takes too much memory"] * 2
    assert_peak_below(daemon, 24)


def test_the_largest_list_is_read(root, daemon):
    others = [{"ip": ["10.0.0.1"], "mac": "02:00:5e:10:00:02"}] * 20000
    root.write_device_list([*others, {"ip": ["127.0.0.1"], "mac": "02:00:5e:10:00:01"}])
    assert 0.9 * MEBIBYTE < root.device_list.stat().st_size < MEBIBYTE
    assert ask(root.http_port, "GET", "/api/mac").body == b"02:00:5e:10:00:01"
    assert_peak_below(daemon, 24)
