"""System calls that a forwarded request costs: a figure that a busy machine changes little, so that
a regression shows."""

import re
import shutil
import subprocess
from concurrent.futures import ThreadPoolExecutor

import pytest

from support.clients import Client
from support.destinations import Destination, answer_bytes, answering
from support.scratch_root import PAIRING_KEY
from support.waiting import EMULATOR, SANITIZER

REQUESTS = 400
# By the number of clients, without those that wait for what comes next: one for each turn of the
# loop, which has a reply and a request of many clients, more or less as they happen to come.
MOST = {1: 13, 16: 12}
MOST_WAITS = 2

pytestmark = [
    pytest.mark.skipif(SANITIZER != "" or EMULATOR != "",
                       reason="a sanitizer and an emulator have calls of their own"),
    pytest.mark.skipif(shutil.which("strace") is None, reason="strace is not installed")]


def ask_often(root, tls, connections, requests):
    def ask(_):
        with Client(root.https_port if tls else root.http_port, tls=tls) as client:
            for _ in range(requests // connections):
                assert client.ask("GET", "/api/version",
                                  headers={"PairingKey": PAIRING_KEY}).status == 200

    with ThreadPoolExecutor(connections) as pool:
        list(pool.map(ask, range(connections)))


def count_calls(daemon, directory, work):
    """By name, those of all its threads while `work` runs."""
    counts = directory / "calls"
    with subprocess.Popen(["setpriv", "--pdeathsig", "KILL", "strace", "-f", "-c", "-U", "calls,name",
                           "-o", counts, "-p", str(daemon.pid)],
                          stderr=subprocess.PIPE, text=True) as tracer:
        try:
            assert "attached" in tracer.stderr.readline()
            work()
        finally:
            tracer.terminate()
            tracer.communicate()
    return {name: int(number)
            for number, name in re.findall(r"^ *(\d+) (?!total$)(\w+)$", counts.read_text(), re.M)}


@pytest.mark.parametrize("connections", MOST)
@pytest.mark.parametrize("tls", [False, True])
def test_a_forwarded_request_costs_no_more_system_calls_than_promised(
        root, make_daemon, capsys, tls, connections):
    with Destination(root.destination_port, answering(answer_bytes(b"x" * 200))):
        daemon = make_daemon(options=[]).start()
        once, twice = (count_calls(daemon, root.directory, lambda requests=requests: ask_often(
            root, tls, connections, requests)) for requests in (REQUESTS, 2 * REQUESTS))
    # What connections cost, and the first request to the destination, is in both.
    each = {name: (number - once.get(name, 0)) / REQUESTS for name, number in twice.items()}
    with capsys.disabled():
        print(f"{'TLS' if tls else 'plain'}, {connections} clients: {sum(each.values()):.2f} "
              f"{ {name: round(number, 2) for name, number in each.items() if number > 0.1} }")
    waits = each.pop("epoll_wait")
    assert waits < MOST_WAITS + 0.1
    assert 5 < sum(each.values()) < MOST[connections] + 0.1
