"""A hook script that takes its time."""

import os
import re
from concurrent.futures import ThreadPoolExecutor

import pytest

from support.clients import ask


def test_a_script_that_blocks_its_listener_for_two_minutes_ends_the_daemon(root, make_daemon):
    root.settings["agentDataPath"] = str(root.agent_data)
    go_on = root.directory / "go-on"
    os.mkfifo(go_on)
    pid = root.directory / "pid"
    script = root.write_hook(root.internal_hooks, "10-wait",
                             f"#!/bin/sh\necho $$ >{pid}\nread line <{go_on}\n")
    daemon = make_daemon().start()
    with ThreadPoolExecutor(1) as pool:
        request = pool.submit(ask, root.http_port, "GET", "/api/version", limit=300)
        # Not more than 60 seconds of silence and 60 until somebody looks, long before the script's
        # own 300; and the exit status is the one of a proper end.
        assert daemon.wait_for_exit(limit=150) == 0
        go_on.write_text("now\n")
        with pytest.raises(OSError):
            request.result()
    assert re.search(r"ERROR: void Run: Exit as missing thread hearbeat with id=tavlo::httpAgent "
                     r"interval=(6|7|8|9|10|11)\ds$", daemon.log_text(), re.MULTILINE)
    assert daemon.count_in_log(f"ERROR: void Run: Script left running: PID {pid.read_text().strip()}: "
                               f"{re.escape(str(script))}$") == 1
