"""Instructions that a forwarded request costs: a figure that a busy machine does not change, so that
a regression shows. They are those of all code in the process, libraries included."""

import platform
import re
import shutil
from pathlib import Path

import pytest

from support.clients import Client
from support.daemon import BINARY
from support.destinations import Destination, answer_bytes, answering
from support.scratch_root import PAIRING_KEY
from support.waiting import DEFAULT_LIMIT, EMULATOR, SANITIZER

REQUESTS = 300
START_LIMIT = 5 * DEFAULT_LIMIT  # seconds: under valgrind all takes some fifty times as long

SHORT = b"x" * 200
BODY = b"x" * 32768
LARGE = b"x" * 65536

# What was measured, and how much more other versions of the libraries and other processors may take.
MEASURED = {
    "plain": ({}, SHORT, 70_300),
    "tls": ({"tls": True}, SHORT, 95_300),
    "body": ({"method": "PATCH", "uri": "/api/1/router-ref", "body": BODY}, SHORT, 102_900),
    "large answer": ({"tls": True}, LARGE, 404_000),
}
ROOM = 1.05


def reason_to_skip():
    if SANITIZER:
        return "a sanitizer's build has instructions of its own"
    if EMULATOR or platform.machine() != "x86_64":
        return "the bounds are for the instructions of x86-64"
    if not Path(BINARY + ".debug").exists():
        return "the bounds are for an optimised build"
    if not shutil.which("valgrind"):
        return "valgrind is not installed"
    return ""


pytestmark = pytest.mark.skipif(bool(reason_to_skip()), reason=reason_to_skip())


def instructions(root, make_daemon, requests, method="GET", uri="/api/version", body=b"", tls=False):
    """All that a daemon executes which answers so many requests over one connection."""
    counts = root.directory / "callgrind"
    daemon = make_daemon(options=[], prefix=[
        "valgrind", "--tool=callgrind", f"--callgrind-out-file={counts}", "--quiet"])
    daemon.log.unlink(missing_ok=True)  # an earlier daemon has said there that it has started
    daemon.launch().wait_for_log("INFO: void Run: tavlo started$", limit=START_LIMIT)
    with Client(root.https_port if tls else root.http_port, tls=tls) as client:
        for _ in range(requests):
            answer = client.ask(method, uri, headers={"PairingKey": PAIRING_KEY}, body=body)
            assert answer.status == 200
    daemon.stop()
    return int(re.search(r"^summary: (\d+)$", counts.read_text(), re.MULTILINE)[1])


@pytest.mark.parametrize("kind", MEASURED)
def test_a_forwarded_request_costs_no_more_instructions_than_it_did(root, make_daemon, capsys, kind):
    request, answer, measured = MEASURED[kind]
    with Destination(root.destination_port, answering(answer_bytes(answer))):
        once = instructions(root, make_daemon, REQUESTS, **request)
        twice = instructions(root, make_daemon, 2 * REQUESTS, **request)
    # What start and end cost is in both.
    each = (twice - once) / REQUESTS
    with capsys.disabled():
        print(f"{kind}: {each:,.0f} instructions a request")
    assert each > measured / 4, "this is no request's worth: what was measured is something else"
    assert each < measured * ROOM
