"""Waiting for a state, never for a time."""

import os
import time

SANITIZER = os.environ.get("TAVLO_SANITIZE", "")
EMULATOR = os.environ.get("TAVLO_EMULATOR", "")

# Sanitizers, an emulator and a busy machine make everything slower; no result depends on these
# limits.
DEFAULT_LIMIT = 60.0 if SANITIZER or EMULATOR else 30.0
PAUSE = 0.02


def wait_until(condition, what, limit=DEFAULT_LIMIT):
    """Returns the first true result of `condition`; fails the test after `limit` seconds."""
    deadline = time.monotonic() + limit
    while True:
        result = condition()
        if result:
            return result
        if time.monotonic() > deadline:
            raise AssertionError(f"not seen within {limit:.0f} s: {what}")
        time.sleep(PAUSE)
