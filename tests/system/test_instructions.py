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
from support.waiting import EMULATOR, SANITIZER

REQUESTS = 300

# What was measured, and how much more other versions of the libraries and other processors may take.
PLAIN_GET = 73_000
TLS_GET = 104_000
ROOM = 1.15


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


def instructions(root, make_daemon, requests, **where):
    """All that a daemon executes which answers so many requests over one connection."""
    counts = root.directory / "callgrind"
    daemon = make_daemon(options=[], prefix=[
        "valgrind", "--tool=callgrind", f"--callgrind-out-file={counts}", "--quiet"])
    daemon.log.unlink(missing_ok=True)  # an earlier daemon has said there that it has started
    daemon.start()
    port = root.https_port if where.get("tls") else root.http_port
    with Client(port, **where) as client:
        for _ in range(requests):
            answer = client.ask("GET", "/api/version", headers={"PairingKey": PAIRING_KEY})
            assert answer.status == 200
    daemon.stop()
    return int(re.search(r"^summary: (\d+)$", counts.read_text(), re.MULTILINE)[1])


@pytest.mark.parametrize("tls, measured", [(False, PLAIN_GET), (True, TLS_GET)],
                         ids=["plain", "tls"])
def test_a_forwarded_request_costs_no_more_instructions_than_it_did(root, make_daemon, capsys, tls,
                                                                    measured):
    with Destination(root.destination_port, answering(answer_bytes(b"x" * 200))):
        once = instructions(root, make_daemon, REQUESTS, tls=tls)
        twice = instructions(root, make_daemon, 2 * REQUESTS, tls=tls)
    # What start and end cost is in both.
    each = (twice - once) / REQUESTS
    with capsys.disabled():
        print(f"{'TLS' if tls else 'plain'}: {each:,.0f} instructions a request")
    assert each > measured / 4, "this is no request's worth: what was measured is something else"
    assert each < measured * ROOM
