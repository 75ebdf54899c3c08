"""The load generators, and what they saw. All of them are closed loops: a connection asks again when
it has its answer."""

import math
import re
import subprocess
import time
from dataclasses import dataclass

from servers import Failure

LIMIT_SECS = 300
CIPHER = "TLS_AES_128_GCM_SHA256"  # one for all: some servers prefer another one by themselves


@dataclass
class Seen:
    """`rate` a second; latencies in microseconds, by percentile; None where the tool has none."""

    requests: int
    rate: float
    latency: dict | None = None


def percentile(ordered, percent):
    """The smallest of the values that `percent` of them do not exceed."""
    return ordered[max(0, math.ceil(len(ordered) * percent / 100) - 1)]


def run(command):
    """Runs a load generator, which ends when this process does."""
    result = subprocess.run(["setpriv", "--pdeathsig", "KILL", *map(str, command)],
                            stdin=subprocess.DEVNULL, capture_output=True, text=True,
                            timeout=LIMIT_SECS, check=False)
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
    taken.sort()
    return Seen(requests, requests * 1e6 / (max(ended) - min(began)),
                {name: percentile(taken, name) for name in (50, 99, 99.9)})


def resumed_handshakes(port, path, seconds):
    """TLS connections, one after another, each with the session of the one before; `path` is asked
    for over each."""
    begin = time.monotonic()
    output = run(["openssl", "s_time", "-connect", f"127.0.0.1:{port}", "-reuse", "-www", path,
                  "-time", seconds, "-ciphersuites", CIPHER])
    elapsed = time.monotonic() - begin
    count = int(re.search(r"^(\d+) connections in \d+ real seconds", output, re.MULTILINE)[1])
    marks = re.search(r"^r+$", output, re.MULTILINE)
    if count == 0 or not marks or len(marks[0]) != count:
        raise Failure(f"of {count} sessions some were not resumed:\n{output[-500:]}")
    return Seen(count, count / elapsed)
