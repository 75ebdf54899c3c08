"""Requests whose length can be read in two ways, and several in one piece: the destination gets
exactly the requests that were judged, each with one plain length, and never what was hidden in one
of them."""

from dataclasses import dataclass

import pytest

from conftest import daemons, scratch_root
from support.clients import connect, read_to_end
from support.destinations import Destination, answer_bytes
from support.raw_requests import RequestRecorder
from support.scratch_root import PAIRING_KEY

HIDDEN = b"GET /api/hidden HTTP/1.1\r\nHost: x\r\n\r\n"
LENGTH = str(len(HIDDEN)).encode()
CHUNK = b"%x\r\n" % len(HIDDEN) + HIDDEN + b"\r\n0\r\n\r\n"
NO_CHUNK = b"0\r\n\r\n"
START = b"PATCH /api/1/router-ref HTTP/1.1\r\n"


def head(*lines, start=START):
    return start + b"Host: x\r\n" + b"".join(line + b"\r\n" for line in lines) + b"\r\n"


FRAMINGS = {
    "two lengths, the short one first":
        head(b"Content-Length: 0", b"Content-Length: " + LENGTH) + HIDDEN,
    "two lengths, the long one first":
        head(b"Content-Length: " + LENGTH, b"Content-Length: 0") + HIDDEN,
    "the same length twice":
        head(b"Content-Length: " + LENGTH, b"Content-Length: " + LENGTH) + HIDDEN,
    "two lengths in one line": head(b"Content-Length: 0, " + LENGTH) + HIDDEN,
    "a length and chunks":
        head(b"Content-Length: " + LENGTH, b"Transfer-Encoding: chunked") + CHUNK,
    "a length and chunks that end at once":
        head(b"Content-Length: 5", b"Transfer-Encoding: chunked") + NO_CHUNK + HIDDEN,
    "chunks and a length that covers less":
        head(b"Transfer-Encoding: chunked", b"Content-Length: 3") + CHUNK,
    "a length of zero and chunks":
        head(b"Content-Length: 0", b"Transfer-Encoding: chunked") + CHUNK,
    "chunks twice": head(b"Transfer-Encoding: chunked", b"Transfer-Encoding: chunked") + CHUNK,
    "chunks and identity":
        head(b"Transfer-Encoding: chunked", b"Transfer-Encoding: identity") + CHUNK,
    "identity and chunks":
        head(b"Transfer-Encoding: identity", b"Transfer-Encoding: chunked") + CHUNK,
    "a list of encodings": head(b"Transfer-Encoding: identity, chunked") + CHUNK,
    "another encoding": head(b"Transfer-Encoding: gzip", b"Content-Length: 0") + HIDDEN,
    "chunks in capitals": head(b"Transfer-Encoding: CHUNKED") + CHUNK,
    "chunks with a letter before":
        head(b"Transfer-Encoding: xchunked", b"Content-Length: 0") + HIDDEN,
    "chunks with a tab": head(b"Transfer-Encoding:\tchunked") + CHUNK,
    "chunks with a tab behind": head(b"Transfer-Encoding: chunked\t", b"Content-Length: 0") + CHUNK,
    "chunks in quotes": head(b'Transfer-Encoding: "chunked"', b"Content-Length: 0") + HIDDEN,
    "a blank before the colon": head(b"Transfer-Encoding : chunked", b"Content-Length: 0") + HIDDEN,
    "a blank before the length's colon":
        head(b"Content-Length : 0", b"Content-Length: " + LENGTH) + HIDDEN,
    "a blank before the name": head(b" Content-Length: 0", b"Content-Length: " + LENGTH) + HIDDEN,
    "an underscore": head(b"Content_Length: 0", b"Content-Length: " + LENGTH) + HIDDEN,
    "a folded encoding": head(b"Transfer-Encoding:\r\n chunked", b"Content-Length: 0") + CHUNK,
    "a folded length": head(b"Content-Length:\r\n " + LENGTH) + HIDDEN,
    "a fold that looks like a length":
        head(b"X: y\r\n Content-Length: 0", b"Content-Length: " + LENGTH) + HIDDEN,
    "a bare line feed before a length":
        START + b"Host: x\nContent-Length: " + LENGTH + b"\n\n" + HIDDEN,
    "a bare line feed within a header":
        head(b"X: y\nContent-Length: 0", b"Content-Length: " + LENGTH) + HIDDEN,
    "a bare carriage return within a header":
        head(b"X: y\rContent-Length: 0", b"Content-Length: " + LENGTH) + HIDDEN,
    "a NUL within a length": head(b"Content-Length: 0\x00" + LENGTH) + HIDDEN,
    "a NUL within an encoding":
        head(b"Transfer-Encoding: chunked\x00x", b"Content-Length: 0") + CHUNK,
    "a NUL within a name": head(b"Content-Length\x00: 0", b"Content-Length: " + LENGTH) + HIDDEN,
    "a length with a sign": head(b"Content-Length: +" + LENGTH) + HIDDEN,
    "a negative length": head(b"Content-Length: -1") + HIDDEN,
    "a length in hexadecimal": head(b"Content-Length: 0x10") + HIDDEN,
    "a length in octal": head(b"Content-Length: 0" + LENGTH) + HIDDEN,
    "a length with a fraction": head(b"Content-Length: 0.0") + HIDDEN,
    "a length with a blank within": head(b"Content-Length: 0 " + LENGTH) + HIDDEN,
    "a length with a tab": head(b"Content-Length:\t" + LENGTH) + HIDDEN,
    "an empty length": head(b"Content-Length:") + HIDDEN,
    "a length that wraps around": head(b"Content-Length: 18446744073709551616") + HIDDEN,
    "no length": head() + HIDDEN,
    "no length and to the end": head(b"Connection: close") + HIDDEN,
    "a GET with a length":
        head(b"Content-Length: " + LENGTH, start=b"GET /api/version HTTP/1.1\r\n") + HIDDEN,
    "a GET with chunks":
        head(b"Transfer-Encoding: chunked", start=b"GET /api/version HTTP/1.1\r\n") + CHUNK,
    "HTTP/1.0 with chunks":
        head(b"Transfer-Encoding: chunked", b"Content-Length: 0", start=START.replace(b"1.1",
             b"1.0")) + CHUNK,
    "a chunk with an extension":
        head(b"Transfer-Encoding: chunked") + b"%x;x=y\r\n" % len(HIDDEN) + HIDDEN + b"\r\n0\r\n\r\n",
    "a chunk size with a sign":
        head(b"Transfer-Encoding: chunked") + b"+%x\r\n" % len(HIDDEN) + HIDDEN + b"\r\n0\r\n\r\n",
    "a chunk size with 0x":
        head(b"Transfer-Encoding: chunked") + b"0x%x\r\n" % len(HIDDEN) + HIDDEN + b"\r\n0\r\n\r\n",
    "a chunk size with a blank":
        head(b"Transfer-Encoding: chunked") + b" %x \r\n" % len(HIDDEN) + HIDDEN + b"\r\n0\r\n\r\n",
    "a chunk that is longer than its size":
        head(b"Transfer-Encoding: chunked") + b"1\r\n" + HIDDEN + b"\r\n0\r\n\r\n",
    "a chunk size that wraps around":
        head(b"Transfer-Encoding: chunked") + b"10000000000000000\r\n" + HIDDEN,
    "a chunk with a bare line feed": head(b"Transfer-Encoding: chunked") + b"1\nx\n0\n\n" + HIDDEN,
    "an empty chunk line": head(b"Transfer-Encoding: chunked") + b"\r\n" + CHUNK,
    "a trailer that is a length":
        head(b"Transfer-Encoding: chunked") + b"0\r\nContent-Length: " + LENGTH + b"\r\n\r\n" +
        HIDDEN,
    "a start line with a carriage return":
        b"GET /api/version\rX: y HTTP/1.1\r\nHost: x\r\n\r\n" + HIDDEN,
    "a start line with two versions":
        b"GET /api/version HTTP/1.1 HTTP/1.1\r\nHost: x\r\n\r\n" + HIDDEN,
    "a whole URL": b"GET http://x/api/hidden HTTP/1.1\r\nHost: x\r\n\r\n",
    "upgrade":
        head(b"Connection: Upgrade, HTTP2-Settings", b"Upgrade: h2c", b"Content-Length: 0") +
        HIDDEN,
}

@dataclass
class Judge:
    """The daemon with a hook script that notes what it is asked about."""

    daemon: object
    recorder: RequestRecorder
    notes: object

    def take_notes(self):
        found = []
        for note in sorted(self.notes.iterdir(), key=lambda path: int(path.name)):
            start, _, body = note.read_bytes().partition(b"\n")
            found.append((start, body))
            note.unlink()
        return found


@pytest.fixture(scope="module")
def judge():
    with scratch_root() as root, daemons(root) as make:
        root.settings["agentDataPath"] = str(root.agent_data)
        notes = root.directory / "notes"
        notes.mkdir()
        root.write_hook(root.internal_hooks, "10-note", "#!/bin/sh\n"
                        f'note={notes}/$(ls {notes} | wc -l)\n'
                        'echo "$2 $4" >"$note"\n[ $# -lt 6 ] || cat "$6" >>"$note"\n')
        recorder = RequestRecorder(answer_bytes(b"ok"))
        with Destination(root.destination_port, recorder):
            yield Judge(make().start(), recorder, notes)


def send(port, request, tls):
    """Everything until the daemon ends the connection, which the last request asks it to do."""
    with connect(port, tls) as client:
        try:
            client.sendall(request + b"GET /the-end HTTP/1.1\r\nConnection: close\r\n\r\n")
        except OSError:
            pass  # it has ended it already
        return read_to_end(client)


def exchange_judged(judge, request, tls):
    """Returns the answer, and what was asked of the destination after the same had been asked of
    the hook."""
    root = judge.daemon.root
    answer = send(root.https_port if tls else root.http_port, request, tls)
    sent = judge.recorder.take()
    assert [(each.start.rpartition(b" ")[0], each.body) for each in sent] == judge.take_notes()
    for each in sent:
        assert each.headers == [(b"content-length", str(len(each.body)).encode()),
                                (b"host", b"127.0.0.1")]
    return answer, sent


@pytest.mark.parametrize("request_bytes", FRAMINGS.values(), ids=FRAMINGS)
def test_what_has_two_lengths_is_one_request_or_none(judge, request_bytes):
    # What is hidden may come to judgement as a request of its own, and is refused then.
    _, sent = exchange_judged(judge, request_bytes, False)
    assert len(sent) <= 1
    for request in sent:
        assert request.start in (START.rstrip(), b"GET /api/version HTTP/1.1")


@pytest.mark.parametrize("request_bytes", FRAMINGS.values(), ids=FRAMINGS)
def test_what_has_two_lengths_lends_its_key_to_no_other(judge, request_bytes):
    start, _, rest = request_bytes.partition(b"\r\n")
    with_key = start + f"\r\nPairingKey: {PAIRING_KEY}\r\n".encode() + rest
    _, sent = exchange_judged(judge, with_key, True)
    assert len(sent) <= 1
    for request in sent:
        assert not request.start.startswith(b"GET /api/hidden ")


@pytest.mark.parametrize("tls", [False, True])
def test_requests_in_one_piece_are_answered_in_their_order(judge, tls):
    count = 50
    request = head(f"PairingKey: {PAIRING_KEY}".encode(), b"Content-Length: 2")
    pieces = b"".join(request + b"%02d" % number for number in range(count))
    answer, sent = exchange_judged(judge, pieces, tls)
    assert [each.body for each in sent] == [b"%02d" % number for number in range(count)]
    assert answer.count(b"HTTP/1.1 200 OK\r\n") == count
    # And the last one, which is for nobody.
    assert answer.count(b"HTTP/1.1 404 ") == 1


def test_each_request_in_one_piece_is_judged(judge):
    allowed = b"GET /api/version HTTP/1.1\r\nHost: x\r\n\r\n"
    answer, sent = exchange_judged(judge, allowed * 10 + HIDDEN + allowed, False)
    # A refusal ends the connection.
    assert [each.start for each in sent] == [b"GET /api/version HTTP/1.1"] * 10
    assert answer.count(b"HTTP/1.1 200 OK\r\n") == 10
    assert answer.count(b"HTTP/1.1 417 ") == 1
