"""The room that a listener has for its clients, and what it says when it makes some."""

import re
import resource
from contextlib import contextmanager

from support.waiting import EMULATOR, SANITIZER, wait_until

CONNECTIONS = {False: 512, True: 256}  # of the plain listener and of the one that speaks TLS
WAITING = 100  # requests of one listener
LARGEST_REPLY = 16 << 20
LARGEST_REPLY_HEAD = 64 << 10
UNREAD_ANSWERS = 8 << 20  # of one listener, beside the reply that is coming in

TOO_MANY_CONNECTIONS = "too many connections"
TOO_MUCH_UNFINISHED = "unfinished requests take too much memory"
TOO_MUCH_UNREAD = "unread answers take too much memory"

ENDED = re.compile(r"^.* INFO: .*: Ended (\d+) clients to make room, the last of ([\d.]+): (.*)$",
                   re.MULTILINE)


def ended_clients(daemon, reason=None, since=0):
    """How many it has ended, for that reason or any. One line counts several, a second later at
    most."""
    return sum(int(line[1]) for line in ENDED.finditer(daemon.log_text(since))
               if reason in (None, line[3]))


def wait_for_ended_clients(daemon, count, reason, since=0):
    wait_until(lambda: ended_clients(daemon, reason, since) >= count,
               f"{count} clients that were ended: {reason}")


def wait_for_clients(daemon, count):
    wait_until(lambda: len(daemon.client_connections()) == count, f"{count} clients")


def assert_peak_below(daemon, mebibytes):
    """All the memory that it ever had at a time."""
    if SANITIZER or EMULATOR:
        print("it would be another's memory too: not looked at")
        return
    peak = daemon.peak_resident_kib()
    print(f"{peak} KiB at most")
    assert peak < mebibytes * 1024


@contextmanager
def many_descriptors():
    """As many as the system lets this process have."""
    before = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (before[1], before[1]))
    yield
    resource.setrlimit(resource.RLIMIT_NOFILE, before)
