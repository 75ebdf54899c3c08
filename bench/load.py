"""The load generators, and what they saw. All of them are closed loops: a connection asks again when
it has its answer."""

import math
import subprocess
from contextlib import contextmanager
from dataclasses import dataclass

from servers import BUILD, Failure

LIMIT_SECS = 300
ENDLESS = 1000000
CIPHER = "TLS_AES_128_GCM_SHA256"  # one for all: some servers prefer another one by themselves

PERCENTILES = {"p50": 50, "p99": 99, "p99.9": 99.9}


@dataclass
class Seen:
    """`rate` a second; `latency` in microseconds, by percentile."""

    requests: int
    rate: float
    latency: dict


def percentile(ordered, percent):
    """The smallest of the values that `percent` of them do not exceed."""
    return ordered[max(0, math.ceil(len(ordered) * percent / 100) - 1)]


def summary(taken, elapsed):
    """`taken` are the ordered latencies, `elapsed` the time of all; both in microseconds."""
    return Seen(len(taken), len(taken) * 1e6 / elapsed,
                {name: percentile(taken, percent) for name, percent in PERCENTILES.items()})


def ending_with_us(command):
    return ["setpriv", "--pdeathsig", "KILL", *map(str, command)]


def run(command):
    """Runs a load generator, which ends when this process does."""
    result = subprocess.run(ending_with_us(command), stdin=subprocess.DEVNULL, capture_output=True,
                            text=True, timeout=LIMIT_SECS, check=False)
    if result.returncode != 0:
        raise Failure(f"{command[0]} failed:\n{result.stdout[-2000:]}{result.stderr[-2000:]}")
    return result.stdout


def h2load(log, url, requests, connections, expected=200, method="GET", body=None, headers=()):
    """`requests` over as many `connections` at a time. The log has a line for each: when it was
    sent, its status and how long it took, all exact."""
    log.unlink(missing_ok=True)
    command = ["h2load", "--h1", "-n", requests, "-c", connections, "--log-file", log,
               f"--tls13-ciphers={CIPHER}", *(word for header in headers for word in ("-H", header))]
    if body:
        command += ["-d", body, "-H", f":method: {method}"]
    run([*command, url])
    began, ended, taken = [], [], []
    for line in log.read_text(encoding="ascii").splitlines():
        start, status, duration = map(int, line.split("\t"))
        if status != expected:
            raise Failure(f"{url} answered with {status} instead of {expected}")
        began.append(start)
        ended.append(start + duration)
        taken.append(duration)
    if len(taken) != requests:
        raise Failure(f"{url} answered {len(taken)} of {requests} requests")
    return summary(sorted(taken), max(ended) - min(began))


@contextmanager
def noise(url, options):
    """One connection that asks for `url` all the while."""
    command = ["h2load", "--h1", "-n", ENDLESS, "-c", 1, *options, url]
    process = subprocess.Popen(ending_with_us(command), stdin=subprocess.DEVNULL,
                               stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        yield
        if process.poll() is not None:
            raise Failure(f"the load of {url} has ended too early")
    finally:
        process.kill()
        process.wait()


def handshakes(port, path, expected, count, reuse):
    """`count` TLS connections, one after another, over each of which `path` is asked for; with
    `reuse` each resumes a session."""
    output = run([BUILD / "bench" / "handshakes", port, path, expected, count, "reuse" if reuse else "new"])
    taken = sorted(map(float, output.split()))
    return summary(taken, sum(taken))
