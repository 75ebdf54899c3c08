"""A hundred thousand requests: nothing grows, nothing is lost."""

import re
import subprocess
import threading

from support.clients import ask
from support.destinations import Destination, answer_bytes, answering
from support.scratch_root import PAIRING_KEY
from support.waiting import EMULATOR, SANITIZER, wait_until

REQUESTS = 5000 if SANITIZER else 100000
WARM_UP = 500 if SANITIZER else 5000
CLIENTS = 20

# A few pages more or less are the allocator's affair; a leak of 50 bytes a request is not.
LARGEST_GROWTH_KIB = 1024


def h2load(requests, uri, *options):
    """Asks `requests` times over kept connections; every answer must be a 2xx."""
    result = subprocess.run(
        ["h2load", "--h1", "--requests", str(requests), "--clients", str(CLIENTS), *options, uri],
        capture_output=True, text=True, timeout=500, check=False)
    assert result.returncode == 0, result.stderr
    assert f" {requests} succeeded, 0 failed, 0 errored, 0 timeout" in result.stdout, result.stdout
    assert re.search(rf"status codes: {requests} 2xx, 0 3xx, 0 4xx, 0 5xx", result.stdout)


def load_both_listeners(root, requests):
    """Half of the requests at each listener, at the same time."""
    failures = []

    def run(*arguments):
        try:
            h2load(requests // 2, *arguments)
        except BaseException as failure:  # for the test's own thread
            failures.append(failure)

    threads = [
        threading.Thread(target=run, args=(f"http://127.0.0.1:{root.http_port}/api/version",)),
        threading.Thread(target=run, args=(f"https://127.0.0.1:{root.https_port}/api/x",
                                           "--header", f"PairingKey: {PAIRING_KEY}")),
    ]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    if failures:
        raise failures[0]


def test_a_hundred_thousand_requests_leave_it_as_it_was(root, make_daemon):
    daemon = make_daemon(options=[])
    with Destination(root.destination_port, answering(answer_bytes(b"x" * 200))) as destination:
        daemon.start()
        # It says at this level that it has started, not when it has read the key.
        wait_until(lambda: ask(root.https_port, "GET", "/api/x", headers={"PairingKey": PAIRING_KEY},
                               tls=True).status == 200, "the key")
        load_both_listeners(root, WARM_UP)
        daemon.wait_for_no_clients()
        before = daemon.descriptors(), daemon.threads(), daemon.resident_kib()
        mark = daemon.mark()
        load_both_listeners(root, REQUESTS)
        daemon.wait_for_no_clients()
        # The listener that was ready first may have given up its idle connection, a minute later.
        assert set(daemon.descriptors()) <= set(before[0])
        assert daemon.threads() == before[1]
        # It kept its two connections all the time.
        assert destination.accepted == 2
    growth = daemon.resident_kib() - before[2]
    print(f"resident memory grew by {growth} KiB from {before[2]} KiB")
    if SANITIZER or EMULATOR:
        print("it would be another's memory too: not looked at")
    else:
        assert growth <= LARGEST_GROWTH_KIB
    assert len(daemon.messages(mark)) == REQUESTS


def test_refused_requests_leave_it_as_it_was(root, make_daemon):
    # Each of them costs a connection: the library closes it after an error.
    count = 200 if SANITIZER else 4000
    daemon = make_daemon(options=[]).start()

    def refused(requests):
        for port, scheme in ((root.http_port, "http"), (root.https_port, "https")):
            result = subprocess.run(
                ["h2load", "--h1", "--requests", str(requests), "--clients", str(CLIENTS),
                 f"{scheme}://127.0.0.1:{port}/api/x"],
                capture_output=True, text=True, timeout=500, check=False)
            assert result.returncode == 0, result.stderr
        daemon.wait_for_no_clients()

    refused(count // 10)
    before = daemon.descriptors(), daemon.threads(), daemon.resident_kib()
    refused(count)
    assert daemon.descriptors() == before[0]
    assert daemon.threads() == before[1]
    if not SANITIZER and not EMULATOR:
        assert daemon.resident_kib() - before[2] <= LARGEST_GROWTH_KIB
