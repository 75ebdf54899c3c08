"""Replies that are too large, that have no proper status, or whose length is only told by the end
of their connection."""

import re

import pytest

from support.clients import ask
from support.destinations import Destination, answer_bytes, answering
from support.room import LARGEST_REPLY, LARGEST_REPLY_HEAD, assert_peak_below
from support.scratch_root import PAIRING_KEY

KEY = {"PairingKey": PAIRING_KEY}
NO_REPLY = (500, "Timeout in forwarding request")
OK = b"HTTP/1.1 200 OK\r\n"
CHUNKED = OK + b"Transfer-Encoding: chunked\r\n\r\n"


def chunks(body, size=1 << 20):
    parts = [body[start:start + size] for start in range(0, len(body), size)]
    return b"".join(b"%x\r\n" % len(part) + part + b"\r\n" for part in parts) + b"0\r\n\r\n"


FRAMINGS = {
    "a length": (answer_bytes, True),
    "chunks": (lambda body: CHUNKED + chunks(body), True),
    "one chunk": (lambda body: CHUNKED + chunks(body, len(body)), True),
    "the end of the connection": (lambda body: OK + b"\r\n" + body, False),
}


def ask_by(root, tls, limit=60):
    if tls:
        return ask(root.https_port, "GET", "/api/x", headers=KEY, tls=True, limit=limit)
    return ask(root.http_port, "GET", "/api/version", limit=limit)


def outcome(answer):
    return answer.status, answer.reason


def assert_next_is_on_its_own(root, tls):
    with Destination(root.destination_port, answering(answer_bytes(b"next"))):
        assert ask_by(root, tls).body == b"next"


def assert_refused(root, daemon, tls, answer, line):
    """One error line that says why, and the one that every broken reply has."""
    mark = daemon.mark()
    with Destination(root.destination_port, answering(answer, repeat=False)) as destination:
        assert outcome(ask_by(root, tls)) == NO_REPLY
        assert destination.accepted == 1
    errors = [text for level, text in daemon.messages(mark) if level == "ERROR"]
    assert len(errors) == 2
    assert re.fullmatch(line, errors[0])
    assert errors[1] == NO_REPLY[1]
    assert_next_is_on_its_own(root, tls)
    return errors[0]


@pytest.mark.parametrize("frame, repeat", FRAMINGS.values(), ids=FRAMINGS)
@pytest.mark.parametrize("tls", [False, True])
def test_sixteen_mebibytes_come_back_whole(root, daemon, tls, frame, repeat):
    body = (b"0123456789abcde\n" * (LARGEST_REPLY // 16))
    with Destination(root.destination_port, answering(frame(body), repeat)):
        for _ in range(2):
            answer = ask_by(root, tls)
            assert outcome(answer) == (200, "OK")
            assert answer.body == body
    assert_peak_below(daemon, 64)


@pytest.mark.parametrize("tls", [False, True])
def test_a_byte_more_that_is_announced_is_refused(root, daemon, tls):
    assert_refused(root, daemon, tls, answer_bytes(bytes(LARGEST_REPLY + 1)),
                   f"The body of a reply is larger than {LARGEST_REPLY} bytes: "
                   f"Content-Length: {LARGEST_REPLY + 1}")


@pytest.mark.parametrize("tls", [False, True])
def test_a_chunk_of_a_byte_more_is_refused(root, daemon, tls):
    assert_refused(root, daemon, tls, FRAMINGS["one chunk"][0](bytes(LARGEST_REPLY + 1)),
                   f"A chunk of a reply is broken, or larger than {LARGEST_REPLY} bytes")


@pytest.mark.parametrize("framing", ["chunks", "the end of the connection"])
@pytest.mark.parametrize("tls", [False, True])
def test_a_byte_more_that_comes_is_refused(root, daemon, tls, framing):
    line = assert_refused(root, daemon, tls, FRAMINGS[framing][0](bytes(LARGEST_REPLY + 1)),
                          rf"The body of a reply is larger than {LARGEST_REPLY} bytes: "
                          r"so far \d+")
    assert int(line.split()[-1]) > LARGEST_REPLY


HEADS = {
    "many headers": OK + b"".join(b"X-%04d: %s\r\n" % (number, b"x" * 990)
                                  for number in range(70)) + b"Content-Length: 0\r\n\r\n",
    "one header": OK + b"X: " + b"x" * LARGEST_REPLY_HEAD + b"\r\nContent-Length: 0\r\n\r\n",
    "the first line": OK[:-2] + b"x" * LARGEST_REPLY_HEAD + b"\r\nContent-Length: 0\r\n\r\n",
}


@pytest.mark.parametrize("head", HEADS.values(), ids=HEADS)
@pytest.mark.parametrize("tls", [False, True])
def test_a_larger_head_is_refused(root, daemon, tls, head):
    assert_refused(root, daemon, tls, head,
                   f"The head of a reply is larger than {LARGEST_REPLY_HEAD} bytes")


@pytest.mark.parametrize("tls", [False, True])
def test_a_head_of_less_passes(root, daemon, tls):
    head = OK + b"X: " + b"x" * (LARGEST_REPLY_HEAD - 1024) + b"\r\nContent-Length: 2\r\n\r\nok"
    with Destination(root.destination_port, answering(head)):
        assert ask_by(root, tls).body == b"ok"


@pytest.mark.parametrize("status", [99, 1, 1000, 65536, -200, 101, 102, 103, 199])
@pytest.mark.parametrize("tls", [False, True])
def test_what_is_no_status_is_a_broken_reply(root, daemon, tls, status):
    assert_refused(root, daemon, tls, answer_bytes(b"", f"{status} Odd"),
                   f"The SDK REST host answered with status {status}, which is none")


@pytest.mark.parametrize("status", [200, 299, 600, 999])
def test_what_is_a_status_comes_back(root, daemon, status):
    with Destination(root.destination_port, answering(answer_bytes(b"body", f"{status} Odd"))):
        answer = ask_by(root, True)
        assert (answer.status, answer.reason, answer.body) == (status, "Odd", b"body")


KEPT = {
    "HTTP/1.1": OK + b"Connection: keep-alive\r\n\r\n",
    "HTTP/1.0": b"HTTP/1.0 200 OK\r\nConnection: keep-alive\r\n\r\n",
    "another word": OK + b"Connection: Keep-Alive, x\r\n\r\n",
}


@pytest.mark.parametrize("body", [b"", b"to the end", bytes(200000)],
                         ids=["nothing", "a little", "much"])
@pytest.mark.parametrize("head", KEPT.values(), ids=KEPT)
@pytest.mark.parametrize("tls", [False, True])
def test_a_reply_without_a_length_goes_to_the_end_of_its_connection(root, daemon, tls, head, body):
    """Whatever it says about keeping that."""
    with Destination(root.destination_port, answering(head + body, repeat=False)):
        for _ in range(2):
            answer = ask_by(root, tls)
            assert (answer.status, answer.body) == (200, body)


INTERIM_HEADERS = ["Content-Length: 2", "Transfer-Encoding: chunked", "Connection: close",
                   "Content-Type: text/other"]


@pytest.mark.parametrize("header", INTERIM_HEADERS)
@pytest.mark.parametrize("tls", [False, True])
def test_the_headers_of_an_interim_answer_are_not_the_replys(root, daemon, tls, header):
    interim = f"HTTP/1.1 100 Continue\r\n{header}\r\n\r\n".encode()
    with Destination(root.destination_port, answering(interim * 3 + answer_bytes(b"whole"))) as host:
        for _ in range(3):
            answer = ask_by(root, tls)
            assert (answer.status, answer.body) == (200, b"whole")
            assert answer.header("Content-Type") == "text/plain"
        assert host.accepted == 1
    assert not [text for level, text in daemon.messages() if level == "ERROR"]


TWO_LENGTHS = {
    "a length beside chunks": b"Content-Length: 4\r\nTransfer-Encoding: chunked\r\n",
    "another coding": b"Transfer-Encoding: gzip\r\nConnection: keep-alive\r\n",
    "no coding": b"Transfer-Encoding: identity\r\nConnection: keep-alive\r\n",
    "two codings": b"Transfer-Encoding: gzip, chunked\r\nConnection: keep-alive\r\n",
    "two lines": b"Transfer-Encoding: chunked\r\nTransfer-Encoding: chunked\r\n",
    "two lines that differ": b"Transfer-Encoding: chunked\r\nTransfer-Encoding: gzip\r\n",
}


def test_the_first_of_two_lengths_counts_as_for_libevent(root, daemon):
    lengths = b"Content-Length: 4\r\nContent-Length: %d\r\n\r\nbody" % (LARGEST_REPLY + 1)
    with Destination(root.destination_port, answering(OK + lengths, repeat=False)):
        assert ask(root.http_port, "GET", "/api/version").body == b"body"


@pytest.mark.parametrize("headers", TWO_LENGTHS.values(), ids=TWO_LENGTHS)
@pytest.mark.parametrize("tls", [False, True])
def test_a_length_that_can_be_read_in_two_ways_is_refused(root, daemon, tls, headers):
    """By the daemon, or by a libevent that sees it first, and then without a line."""
    answer = OK + headers + b"\r\n" + chunks(b"body")
    with Destination(root.destination_port, answering(answer, repeat=False)):
        assert outcome(ask_by(root, tls)) == NO_REPLY
    errors = [text for level, text in daemon.messages() if level == "ERROR"]
    assert errors[-1] == NO_REPLY[1]
    assert errors[:-1] in ([], ["The length of a reply can be read in two ways"])
    assert_next_is_on_its_own(root, tls)
