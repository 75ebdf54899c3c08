"""What clients and files can put into the log: one line a message, in the proper form, no matter
what it holds."""

import signal

import pytest

from support.clients import connect, exchange, read_to_end
from support.scratch_root import PAIRING_KEY

NOT_ALLOWED = ("DEBUG", "Endpoint is not allowed with insecure connection")


def log_of(daemon, request, tls=False):
    mark = daemon.mark()
    if tls:
        with connect(daemon.root.https_port, tls=True) as connection:
            connection.sendall(request)
            answer = read_to_end(connection)
    else:
        answer = exchange(daemon.root.http_port, request)
    # Checks the form of each line on its way.
    return answer, daemon.messages(mark)


def get(uri, *headers):
    return b"\r\n".join([b"GET " + uri + b" HTTP/1.1", b"Host: x", b"Connection: close", *headers,
                         b"", b""])


@pytest.mark.parametrize("text", [b"\x1b[31mred\x1b[0m", b"a\rb", b"a\tb", b"a\x01b", b"a\x7fb",
                                  "ü€".encode(), b"\xff\xfe", b"%s%n%d", b"%0a%00", b"a b",
                                  b"'quoted\"", b"\x85", b"a\x0bb"])
@pytest.mark.parametrize("tls", [False, True])
def test_a_uri_is_logged_as_it_came(shared, text, tls):
    uri = b"/api/" + text
    answer, logged = log_of(shared, get(uri), tls)
    assert answer.startswith(b"HTTP/1.1 417 ")
    assert ("INFO", "GET " + uri.decode(errors="surrogateescape")) in logged


def test_a_uri_outside_api_is_logged_twice_as_it_came(shared):
    _, logged = log_of(shared, get(b"/\x1b[2J\xff%s"))
    assert logged == [("INFO", "GET /\x1b[2J\udcff%s"),
                      ("ERROR", "Invalid endpoint is called: /\x1b[2J\udcff%s")]


def test_a_nul_in_a_uri_is_refused_and_nothing_of_the_uri_logged(shared):
    answer, logged = log_of(shared, get(b"/api/a\x00b"))
    assert answer.startswith(b"HTTP/1.1 400 ")
    assert logged[0] == ("INFO", "A request of 127.0.0.1 is refused: A NUL in the request line")
    assert [text for _, text in logged if "/api/" in text] == []


def test_a_line_feed_in_a_uri_starts_no_line_of_the_log(shared):
    answer, logged = log_of(shared, get(b"/api/a\nb: c"))
    assert not answer.startswith(b"HTTP/1.1 200 ")
    assert [text for _, text in logged if "b: c" in text] == []


def test_a_very_long_uri_is_cut_in_the_log(shared):
    _, logged = log_of(shared, get(b"/api/" + b"u" * 10000))
    assert len(logged) == 2
    assert logged[0][0] == "INFO"
    assert logged[1] == NOT_ALLOWED
    line = next(line for line in shared.log_text().splitlines() if "uuuuu" in line)
    assert len(line) == 2047


@pytest.mark.parametrize("sent, shown", [
    (b"a\tb", "a\tb"), ("ü€".encode(), "ü€"), (b"\xff", "\udcff"), (b"%s%n", "%s%n"),
    (b"%0a", "%0a"), (b"' or '", "' or '"), (b"  blanks around  ", "blanks around"),
])
def test_a_wrong_key_is_logged_as_it_came(shared, sent, shown):
    answer, logged = log_of(shared, get(b"/api/x", b"PairingKey: " + sent), tls=True)
    assert answer.startswith(b"HTTP/1.1 417 ")
    assert logged[-1] == ("DEBUG", f"Pairing key not as expected: '{shown}'")


@pytest.mark.parametrize("sent", [b"a\rb", b"a\r\rb", b"a\x00b", b"\x1b[31mred", b"a\x01b",
                                  b"a\x7fb", b"folded\r\n value"])
def test_a_key_that_no_header_may_have_is_refused_and_not_logged(shared, sent):
    answer, logged = log_of(shared, get(b"/api/x", b"PairingKey: " + sent), tls=True)
    assert answer.startswith(b"HTTP/1.1 400 ")
    assert [text for _, text in logged if "Pairing key" in text or "/api/" in text] == []


def test_the_right_key_is_never_logged(root, daemon, sdk_host):
    log_of(daemon, get(b"/api/x", b"PairingKey: " + PAIRING_KEY.encode()), tls=True)
    log_of(daemon, get(b"/api/x"), tls=True)
    daemon.stop()
    assert sdk_host.requests
    assert PAIRING_KEY not in daemon.log_text()
    assert PAIRING_KEY not in daemon.log_text(path=daemon.console)


@pytest.mark.parametrize("key, shown", [
    (b"\x1b[31m", "\x1b[3..."), (b"a\rb", "a\rb"), (b"\xff\xfe", "\udcff\udcfe"),
    ("üü".encode(), "ü\udcc3..."), (b"%s%s", "%s%..."), (b"a\x00bcd", "a...")])
def test_a_key_from_the_file_is_logged_as_it_is(root, daemon, key, shown):
    root.write_router_info(b"pairing_key: " + key + b"\n")
    mark = daemon.mark()
    daemon.send_signal(signal.SIGHUP)
    daemon.wait_for_log(r"SetPairingKey: Updated: '.*'$", since=mark)
    assert f"SetPairingKey: Updated: '{shown}'\n" in daemon.log_text(mark)
