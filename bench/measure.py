"""What the kernel tells about a server's processes: the processor's time, and memory."""

import os
import re
import signal
import subprocess
import threading
from pathlib import Path

from servers import Failure

SAMPLE_PAUSE_SECS = 0.1
TICK_NS = 10**9 // os.sysconf("SC_CLK_TCK")
# What every router has, and what each of the servers needs.
SHARED_BY_ALL = ("ld-linux", "libc.so", "libm.so", "libdl.so", "libpthread.so", "librt.so",
                 "libcrypt.so", "libresolv.so", "libnss", "libssl.so", "libcrypto.so")


def _cpu_ns_of(pid):
    total = 0
    try:
        for schedstat in Path(f"/proc/{pid}/task").glob("*/schedstat"):
            total += int(schedstat.read_text(encoding="ascii").split()[0])
        after_name = Path(f"/proc/{pid}/stat").read_text(encoding="ascii").rpartition(")")[2]
        return total + sum(map(int, after_name.split()[13:15])) * TICK_NS
    except (FileNotFoundError, ProcessLookupError):
        return 0  # a script that has ended meanwhile


def cpu_ns(server):
    """What all threads of all its processes have used, and their children that have ended."""
    return sum(map(_cpu_ns_of, server.pids()))


def _proportional_kib(server):
    """Pss of all its processes as a pair: what is its alone by nature, and the files it maps."""
    own = files = 0
    for pid in server.pids():
        rollup = Path(f"/proc/{pid}/smaps_rollup").read_text(encoding="ascii")
        fields = {line.split(":")[0]: int(line.split()[1]) for line in rollup.splitlines()[1:]}
        own += fields["Pss_Anon"] + fields["Pss_Shmem"]
        files += fields["Pss_File"]
    return own, files


def memory_kib(server):
    return sum(_proportional_kib(server))


def largest_memory_kib(server, work):
    """The largest Pss while `work()` runs. The share of mapped files is taken at the end: a load
    generator that maps the same libraries would seem to make the server smaller."""
    largest = 0
    done = threading.Event()

    def sample():
        nonlocal largest
        while not done.wait(SAMPLE_PAUSE_SECS):
            largest = max(largest, _proportional_kib(server)[0])

    sampler = threading.Thread(target=sample)
    sampler.start()
    try:
        work()
    finally:
        done.set()
        sampler.join()
    own, files = _proportional_kib(server)
    return max(largest, own) + files


def system_calls(server, scratch, work):
    """How many system calls all its processes make while `work()` runs."""
    counts = scratch / "strace"
    pids = server.pids()
    tracer = subprocess.Popen(
        ["setpriv", "--pdeathsig", "KILL", "strace", "-f", "-c", "-o", counts,
         *(word for pid in pids for word in ("-p", str(pid)))],
        stdin=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
    try:
        for _ in pids:
            tracer.stderr.readline()  # "Process ... attached"
        work()
    finally:
        tracer.send_signal(signal.SIGINT)
        tracer.communicate()
    # The last line: share of the time, seconds, microseconds a call, calls, and errors if any.
    total = counts.read_text(encoding="ascii").splitlines()[-1].split()
    if total[-1] != "total":
        raise Failure(f"strace counted nothing of {server.name}")
    return int(total[3])


def instructions(server, scratch, work):
    """How many instructions the server executes that is started, does `work()` and is stopped."""
    counts = scratch / "callgrind"
    server.prefix = ["valgrind", "--tool=callgrind", f"--callgrind-out-file={counts}", "--quiet"]
    try:
        server.start()
        work()
    finally:
        server.stop()
        server.prefix = []
    return int(re.search(r"^summary: (\d+)$", counts.read_text(encoding="utf-8"), re.MULTILINE)[1])


def sizes(server):
    """Bytes of the program, and by name those of the libraries and modules that it has mapped
    besides the C library and OpenSSL."""
    libraries = {}
    for line in Path(f"/proc/{server.process.pid}/maps").read_text(encoding="utf-8").splitlines():
        path = line.partition("/")[1] + line.partition("/")[2]
        name = os.path.basename(path)
        if ".so" in name and not name.startswith(SHARED_BY_ALL):
            libraries[name] = os.path.getsize(path)
    return os.path.getsize(server.program), libraries
