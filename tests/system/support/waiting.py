"""Waiting for a state, never for a time."""

import errno
import os
import time

SANITIZER = os.environ.get("TAVLO_SANITIZE", "")
EMULATOR = os.environ.get("TAVLO_EMULATOR", "")

# Sanitizers, an emulator and a busy machine make everything slower; no result depends on these
# limits.
DEFAULT_LIMIT = 60.0 if SANITIZER or EMULATOR else 30.0
# Seconds between two looks: most of what is waited for comes at once. A look that takes longer is followed
# by a pause as long, or it would keep a core from what it waits for.
FIRST_PAUSE = 0.001
LONGEST_PAUSE = 0.02


def wait_until(condition, what, limit=DEFAULT_LIMIT):
    """Returns the first true result of `condition`; fails the test after `limit` seconds."""
    deadline = time.monotonic() + limit
    pause = FIRST_PAUSE
    while True:
        begin = time.monotonic()
        result = condition()
        if result:
            return result
        end = time.monotonic()
        if end > deadline:
            raise AssertionError(f"not seen within {limit:.0f} s: {what}")
        time.sleep(max(pause, end - begin))
        pause = min(2 * pause, LONGEST_PAUSE)


def open_fifo_for_its_reader(path):
    """Waits until somebody reads the FIFO; returns a file to write into it."""

    def try_it():
        try:
            return os.open(path, os.O_WRONLY | os.O_NONBLOCK | os.O_CLOEXEC)
        except OSError as error:
            if error.errno != errno.ENXIO:
                raise
            return None

    return open(wait_until(try_it, f"a reader of {path}"), "w", encoding="utf-8")
