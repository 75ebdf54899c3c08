#!/usr/bin/python3
"""A long run of the daemon: mixed requests at both listeners while everything around it changes.

Each request is answered once, with the answer that belongs to it: a number in the request comes
back in the answer. Meanwhile the pairing key changes, the log is rotated, the destination restarts,
hook scripts come and go, and so does the address of the LAN (as root only: it takes a network of
its own). At the end nothing may be left over, and memory must not have grown.

Usage: tests/system/soak.py [--closing] [REQUESTS]
  REQUESTS   100000 unless told
  --closing  the destination ends its connections when it likes: a POST or PATCH may meet the end of
             one and get 500, any other request never
The environment may name the program (TAVLO_BINARY) and say that it is a sanitizer's
(TAVLO_SANITIZE) or an emulated one (TAVLO_EMULATOR), whose memory is not judged.

Exit status: 0 if all that holds.
"""

import argparse
import array
import http.client
import multiprocessing
import os
import random
import shutil
import signal
import subprocess
import sys
import tempfile
import time
from collections import Counter
from contextlib import contextmanager
from dataclasses import dataclass
from pathlib import Path

PROJECT = Path(__file__).resolve().parents[2]
os.environ.setdefault("TAVLO_BINARY", str(PROJECT / "build" / "release" / "tavlo"))

from support.clients import Client, ask
from support.daemon import Daemon
from support.destinations import Destination, answer_bytes, read_request
from support.scratch_root import ScratchRoot
from support.waiting import EMULATOR, SANITIZER, wait_until

WORKERS = 4
HOOK_RUNS_PER_REQUEST = 0.01
LARGEST_GROWTH_KIB = 100  # for each 100,000 requests, and once:
LATE_PEAK_KIB = 256  # after the warm-up, more large answers may happen to meet than ever before
WARM_UP = 0.1  # of all requests, and at least so many:
LEAST_WARM_UP = 2500
PAUSE = 0.5  # seconds between two changes
ADDRESS_PERIOD = 65  # seconds; the daemon looks once a minute
LAN_ADDRESSES = 3  # each that it has seen stays in service
MAC = "02:00:5e:10:00:01"
LOST_REPLIES = ("Destination request failed", "Timeout in forwarding request")
NEVER_REPEATED = ("POST", "PATCH")
IN_NAMESPACE = "TAVLO_SOAK_IN_NAMESPACE"


# --- the destination ---

def echo(connection):
    """The answer is the request's first line and its body."""
    while request := read_request(connection):
        head, _, body = request.partition(b"\r\n\r\n")
        connection.sendall(answer_bytes(head.partition(b"\r\n")[0] + b"\n" + body))


def say_nothing(answer):
    return answer


def say_close(answer):
    return answer.replace(b"\r\n", b"\r\nConnection: close\r\n", 1)


def be_old(answer):
    return answer.replace(b"HTTP/1.1", b"HTTP/1.0", 1)


def echo_and_close(connection):
    """After some answers it ends the connection, at once or a few milliseconds later, at times with
    a word about it; at times when the next request has come."""
    while request := read_request(connection):
        head, _, body = request.partition(b"\r\n\r\n")
        answer = answer_bytes(head.partition(b"\r\n")[0] + b"\n" + body)
        tell = random.choice([say_nothing, say_nothing, say_close, be_old])
        connection.sendall(tell(answer))
        if tell is not say_nothing or random.random() < 0.3:
            time.sleep(random.choice([0, 0, 0.001, 0.005]))
            return
        if random.random() < 0.1:
            read_request(connection)
            return


def serve(port, behave, ready):
    signal.signal(signal.SIGINT, signal.SIG_IGN)
    with Destination(port, behave):
        ready.set()
        signal.pause()


class DestinationProcess:
    def __init__(self, port, behave):
        ready = multiprocessing.Event()
        self._process = multiprocessing.Process(target=serve, args=(port, behave, ready),
                                                daemon=True)
        self._process.start()
        ready.wait()

    def kill(self):
        self._process.kill()
        self._process.join()


# --- what the workers have to know of the changes ---

class Change:
    """Something that is in one state, on its way to the next, or there. A request that saw it move
    may have been answered by the old state or by the new one."""

    def __init__(self):
        self._turn = multiprocessing.Value("L", 0)

    def turn(self):
        return self._turn.value

    @contextmanager
    def moving(self):
        self._turn.value += 1
        yield
        self._turn.value += 1

    def has_moved(self, before):
        return before % 2 == 1 or self._turn.value != before


class World:
    def __init__(self, root, closing):
        self.closing = closing
        self.http_port = root.http_port
        self.https_port = root.https_port
        self.key_number = multiprocessing.Value("L", 0)
        self.key_change = Change()
        self.destination_change = Change()
        self.hook_change = Change()
        self.answered = multiprocessing.Value("L", 0)

    def key(self):
        return f"key-{self.key_number.value}"


# --- requests ---

@dataclass
class Request:
    tls: bool
    method: str
    uri: str
    body: str = ""
    status: int = 200
    reason: str = "OK"
    answer: str = None  # the body; None when it does not matter
    has_key: bool = True
    is_forwarded: bool = False


def forwarded(tls, method, uri, body=""):
    return Request(tls, method, uri, body, is_forwarded=True,
                   answer=f"{method} {uri} HTTP/1.1\n{body}")


def refused(tls, method, uri, status, reason, body="", has_key=True):
    return Request(tls, method, uri, body, status, reason, has_key=has_key)


# How often, and what; `n` is the request's number.
KINDS = [
    (20, lambda n: forwarded(False, "PATCH", "/api/1/router-ref", f"{n}")),
    (5, lambda n: forwarded(False, "PATCH", "/api/2/router-attribution-id", f"{n} " * 3000)),
    (20, lambda n: forwarded(True, "GET", f"/api/1/profiles/{n}")),
    (20, lambda n: forwarded(True, "POST", f"/api/1/profiles?number={n}", f"{n} " * (n % 1000))),
    (10, lambda n: forwarded(True, "PUT", f"/api/{n}", f"{n}")),
    (5, lambda n: forwarded(True, "DELETE", f"/api/1/profiles/{n}")),
    (10, lambda n: Request(n % 2 == 0, "GET", "/api/mac", answer=MAC)),
    (2, lambda n: refused(False, "GET", f"/api/{n}", 417,
                          "Endpoint is not allowed with insecure connection")),
    (2, lambda n: refused(True, "GET", f"/api/{n}", 417, "Pairing key not as expected",
                          has_key=False)),
    (2, lambda n: refused(n % 2 == 0, "GET", f"/{n}", 404, "Invalid endpoint is called")),
    (2, lambda n: refused(False, "PATCH", "/api/1/router-ref", 400, "Request data too long",
                          "x" * 33000)),
    (2, lambda n: refused(n % 2 == 0, "PUT", "/api/mac", 405, "Method not allowed")),
]


class Worker:
    def __init__(self, number, world):
        self.world = world
        self.random = random.Random(number)
        self.clients = {tls: Client(world.https_port if tls else world.http_port, tls)
                        for tls in (False, True)}
        self.latencies = array.array("f")  # milliseconds
        self.outcomes = Counter()
        self.wrong = []

    def run(self, numbers):
        weights, kinds = zip(*KINDS)
        for number in numbers:
            request = self.random.choices(kinds, weights)[0](number)
            begin = time.monotonic()
            problem = self.ask(request)
            self.latencies.append((time.monotonic() - begin) * 1000)
            if problem:
                self.wrong.append(f"{request.method} {request.uri[:60]}: {problem}")
            with self.world.answered.get_lock():
                self.world.answered.value += 1
        for client in self.clients.values():
            client.close()

    def ask(self, request):
        """Returns what is wrong with the answer, if anything is."""
        world = self.world
        key_turn, destination_turn = world.key_change.turn(), world.destination_change.turn()
        hook_turn = world.hook_change.turn()
        headers = {"PairingKey": world.key() if request.has_key else "none"}
        try:
            answer = self.clients[request.tls].ask(request.method, request.uri, request.body,
                                                   headers)
        except (OSError, http.client.HTTPException) as error:
            self.outcomes["no answer"] += 1
            return f"no answer: {error!r}"
        self.outcomes[f"{answer.status} {answer.reason}"] += 1
        if (answer.status, answer.reason) == (request.status, request.reason):
            if request.answer is None or answer.body.decode() == request.answer:
                return None
            return f"somebody else's answer: {answer.body[:80]!r}"
        if (request.tls and request.uri != "/api/mac" and answer.status == 417 and
                world.key_change.has_moved(key_turn)):
            return None
        if (request.is_forwarded and answer.status == 500 and answer.reason in LOST_REPLIES and
                world.destination_change.has_moved(destination_turn)):
            return None
        if (world.closing and request.is_forwarded and request.method in NEVER_REPEATED and
                (answer.status, answer.reason) == (500, "Timeout in forwarding request")):
            return None
        # A script may go between being listed and being started.
        if (request.is_forwarded and (answer.status, answer.reason) == (500, "Internal error") and
                world.hook_change.has_moved(hook_turn)):
            return None
        return f"{answer.status} {answer.reason} instead of {request.status} {request.reason}"


def work(number, world, count, results):
    worker = Worker(number, world)
    worker.run(range(number, count, WORKERS))
    results.put((worker.latencies, worker.outcomes, worker.wrong))


# --- what changes meanwhile ---

class Changes:
    def __init__(self, root, daemon, world):
        self.root = root
        self.daemon = daemon
        self.world = world
        self.hook_log = root.directory / "hook_log"
        self.hook = root.internal_hooks / "agent" / "10-note"
        self.hook_away = root.directory / "10-note"
        self.hook_away.write_text(f'#!/bin/sh\necho "$2" >> {self.hook_log}\n')
        self.hook_away.chmod(0o755)
        self.counts = Counter()
        self.logged = 0
        self.address = None
        self.next_address = time.monotonic()
        self.start_destination()

    def rotate_log(self):
        old = self.root.directory / "log.1"
        self.daemon.log.rename(old)
        self.daemon.send_signal(signal.SIGHUP)
        wait_until(self.daemon.log.exists, "the new log file")
        # Nothing is written into the old one any more.
        self.count_requests(old)
        self.counts["rotations of the log"] += 1

    def count_requests(self, path):
        with open(path, "rb") as log:
            self.logged += sum(b": void tavlo::AgentHost::DispatchRequest" in line and
                               b"] INFO: " in line for line in log)

    def change_key(self):
        with self.world.key_change.moving():
            self.world.key_number.value += 1
            self.root.write_pairing_key(self.world.key())
            self.daemon.send_signal(signal.SIGHUP)
            wait_until(self.is_key_in_force, "the new key")
        self.counts["pairing keys"] += 1

    def is_key_in_force(self):
        # Too long a body: the key is looked at before, and nothing is forwarded.
        self.counts["probes"] += 1
        answer = ask(self.root.https_port, "PUT", "/api/probe", "x" * 33000,
                     {"PairingKey": self.world.key()}, tls=True)
        return answer.status == 400

    def restart_destination(self):
        with self.world.destination_change.moving():
            self.stop_destination()
            self.start_destination()
        self.counts["destinations"] += 1

    def start_destination(self):
        self.destination = DestinationProcess(self.root.destination_port,
                                              echo_and_close if self.world.closing else echo)

    def stop_destination(self):
        self.destination.kill()
        wait_until(lambda: not self.daemon.has_connection_to(self.root.destination_port),
                   "the end of the connections to the destination")

    def hook_runs(self):
        return self.hook_log.read_bytes().count(b"\n") if self.hook_log.exists() else 0

    def switch_hook(self):
        """There while fewer scripts have run than should have by now."""
        wanted = self.hook_runs() < self.world.answered.value * HOOK_RUNS_PER_REQUEST
        if wanted != self.hook.exists():
            with self.world.hook_change.moving():
                if wanted:
                    self.hook_away.rename(self.hook)
                else:
                    self.hook.rename(self.hook_away)
            self.counts["hooks put in place or taken away"] += 1

    def change_address(self):
        if IN_NAMESPACE not in os.environ or time.monotonic() < self.next_address:
            return
        self.counts["addresses of the LAN"] += 1
        if self.address:
            subprocess.run(["ip", "address", "delete", self.address, "dev", "lan0"], check=True)
        self.address = f"192.0.2.{self.counts['addresses of the LAN'] % LAN_ADDRESSES + 1}/24"
        subprocess.run(["ip", "address", "add", self.address, "dev", "lan0"], check=True)
        self.next_address += ADDRESS_PERIOD

    def make_one(self):
        random.choice([self.rotate_log, self.change_key, self.restart_destination])()
        self.change_address()


# --- the run ---

def make_lan():
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
    subprocess.run(["ip", "link", "add", "lan0", "type", "veth", "peer", "name", "peer0"],
                   check=True)
    for interface in ("lan0", "peer0"):
        subprocess.run(["ip", "link", "set", interface, "up"], check=True)


def soak(requests, closing, directory):
    root = ScratchRoot(directory)
    root.write_device_list([{"ip": ["127.0.0.1"], "mac": MAC}])
    root.settings["agentDataPath"] = str(root.agent_data)
    if IN_NAMESPACE in os.environ:
        make_lan()
        root.settings["lanInterface"] = "lan0"
    world = World(root, closing)
    root.write_pairing_key(world.key())
    daemon = Daemon(root, options=[])
    changes = Changes(root, daemon, world)
    changes.change_address()
    daemon.start()
    if IN_NAMESPACE in os.environ:
        wait_until(lambda: listening(daemon) == 4, "both listeners at the LAN's address")
    try:
        before = holdings(daemon)
        results, samples = drive(requests, world, daemon, changes)
        daemon.wait_for_no_clients()
        changes.stop_destination()
        after = holdings(daemon)
        samples.append(daemon.resident_kib())
        daemon.stop()
    finally:
        daemon.kill()
    changes.count_requests(daemon.log)
    return report(requests, results, changes, samples, before, after)


def listening(daemon):
    return sum(remote == 0 for _, remote in daemon.sockets())


def holdings(daemon):
    """Descriptors, but for the sockets that listen, and threads."""
    return len(daemon.descriptors()) - listening(daemon), daemon.threads()


def drive(requests, world, daemon, changes):
    """Runs the workers, and the changes beside them; returns what the workers saw and the resident
    memory at the start, after the warm-up and in the middle."""
    results = multiprocessing.Queue()
    workers = [multiprocessing.Process(target=work, args=(number, world, requests, results),
                                       daemon=True) for number in range(WORKERS)]
    samples = [daemon.resident_kib()]
    sampled_after = [0, max(WARM_UP * requests, LEAST_WARM_UP), requests / 2]
    begin = time.monotonic()
    for worker in workers:
        worker.start()
    shown = 0
    while (answered := world.answered.value) < requests:
        assert daemon.is_running(), f"the daemon has ended with {daemon.process.returncode}"
        assert any(worker.is_alive() for worker in workers), "the workers have ended"
        while len(samples) < 3 and answered >= sampled_after[len(samples)]:
            samples.append(daemon.resident_kib())
        if answered >= shown:
            elapsed = time.monotonic() - begin
            print(f"{answered:9} requests, {changes.hook_runs():6} hook runs, "
                  f"{daemon.resident_kib()} KiB, {elapsed:.0f} s", flush=True)
            shown += requests / 20
        changes.make_one()
        end = time.monotonic() + PAUSE
        while time.monotonic() < end:
            changes.switch_hook()
            time.sleep(0.02)
    collected = [results.get() for _ in workers]
    for worker in workers:
        worker.join()
    while len(samples) < 3:  # it was over before
        samples.append(daemon.resident_kib())
    return collected, samples


def report(requests, results, changes, samples, before, after):
    latencies = sorted(latency for result in results for latency in result[0])
    outcomes = sum((result[1] for result in results), Counter())
    wrong = [problem for result in results for problem in result[2]]
    failures = []

    print(f"\n{len(latencies)} requests, {changes.hook_runs()} hook runs")
    for outcome, count in outcomes.most_common():
        print(f"  {count:9}  {outcome}")
    print("while there were " + ", ".join(f"{count} {what}" for what, count in
                                          sorted(changes.counts.items()) if what != "probes"))
    for share in (0.5, 0.99, 0.999, 1):
        place = min(len(latencies) - 1, int(share * len(latencies)))
        print(f"latency, {share:.1%} of them within {latencies[place]:8.2f} ms")
    print("resident memory at the start, after the warm-up, in the middle, at the end: "
          f"{', '.join(map(str, samples))} KiB")
    print(f"descriptors that do not listen: {before[0]} before, {after[0]} after; "
          f"threads: {before[1]} before, {after[1]} after")

    if len(latencies) != requests:
        failures.append(f"{requests - len(latencies)} requests were not made")
    failures += wrong[:20] + ([f"and {len(wrong) - 20} more"] if len(wrong) > 20 else [])
    if changes.logged != requests + changes.counts["probes"]:
        failures.append(f"{changes.logged} requests in the log instead of "
                        f"{requests + changes.counts['probes']}")
    if after != before:
        failures.append("descriptors or threads are left over")
    allowed = LATE_PEAK_KIB + LARGEST_GROWTH_KIB * requests // 100000
    # The emulator itself keeps a quarter MiB of each thread that has ended.
    if not SANITIZER and not EMULATOR and samples[-1] - samples[1] > allowed:
        failures.append(f"memory grew by {samples[-1] - samples[1]} KiB, more than {allowed} KiB")
    for failure in failures:
        print(f"FAILED: {failure}")
    print("failed" if failures else "all answered, nothing left over")
    return not failures


def enter_network_of_our_own():
    if IN_NAMESPACE in os.environ:
        return
    if os.geteuid() != 0 or not shutil.which("unshare"):
        print("not root: the LAN has no address that could change")
        return
    os.environ[IN_NAMESPACE] = "1"
    os.execvp("unshare", ["unshare", "--net", sys.executable, "-B", *sys.argv])


def main():
    parser = argparse.ArgumentParser(usage=__doc__.partition("Usage: ")[2])
    parser.add_argument("requests", nargs="?", type=int, default=100000)
    parser.add_argument("--closing", action="store_true")
    options = parser.parse_args()
    enter_network_of_our_own()
    with tempfile.TemporaryDirectory(prefix="tavlo-soak-") as directory:
        sys.exit(0 if soak(options.requests, options.closing, Path(directory)) else 1)


if __name__ == "__main__":
    main()
