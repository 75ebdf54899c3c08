"""What docs/operations.md says of the log and of crash records."""

import os
import re
import signal
import subprocess
from concurrent.futures import ThreadPoolExecutor

import pytest

from markdown import PROJECT
from support.clients import ask
from support.daemon import LOG_LINE
from support.scratch_root import PAIRING_KEY
from support.waiting import open_fifo_for_its_reader

PAGE = (PROJECT / "docs" / "operations.md").read_text(encoding="utf-8")


def lines_of(daemon, text):
    return [LOG_LINE.match(line) for line in daemon.log_text().splitlines() if text in line]


def test_the_line_that_is_shown_is_one():
    shown = re.findall(r"^ {4}(\d{4}-.*)$", PAGE, re.M)
    assert len(shown) == 1
    assert LOG_LINE.match(shown[0])


def test_a_line_names_process_and_listener(root, daemon, sdk_host):
    for _ in range(2):
        assert ask(root.http_port, "GET", "/api/version").status == 200
        assert ask(root.https_port, "GET", "/api/1/x", headers=[("PairingKey", PAIRING_KEY)],
                   tls=True).status == 200
    plain = lines_of(daemon, "INFO: void tavlo::AgentHost::DispatchRequest: GET /api/version")
    tls = lines_of(daemon, "INFO: void tavlo::AgentHost::DispatchRequest: GET /api/1/x")
    assert len(plain) == len(tls) == 2
    assert {int(line[1], 16) for line in plain + tls} == {daemon.pid}
    assert len({line[2] for line in plain}) == len({line[2] for line in tls}) == 1
    assert plain[0][2] != tls[0][2]


@pytest.mark.parametrize("options, levels", [((), {"INFO"}), (("-d",), {"INFO", "DEBUG"})],
                         ids=["default", "-d"])
def test_only_debug_lines_say_why_a_request_was_refused(root, make_daemon, options, levels):
    daemon = make_daemon(options=options).start()
    mark = daemon.mark()
    assert ask(root.http_port, "GET", "/api/1/x").status == 417
    texts = daemon.messages(since=mark)
    assert {level for level, _ in texts} == levels
    reason = ("DEBUG", "Endpoint is not allowed with insecure connection")
    assert (reason in texts) == ("DEBUG" in levels)


def test_the_command_that_is_shown_lists_the_scripts_that_run(root, make_daemon):
    root.settings["agentDataPath"] = str(root.agent_data)
    gate = root.directory / "gate"
    os.mkfifo(gate)
    script = root.write_hook(root.internal_hooks, "10-wait", f"#!/bin/sh\nread line <{gate}\n")
    daemon = make_daemon().start()
    command = re.search(r'^ {4}(pgrep .* "\$\(pidof tavlo\)")$', PAGE, re.M)[1]
    with ThreadPoolExecutor(1) as pool:
        request = pool.submit(ask, root.http_port, "GET", "/api/version")
        with open_fifo_for_its_reader(gate):
            shown = subprocess.run(command.replace("$(pidof tavlo)", str(daemon.pid)), shell=True,
                                   check=True, capture_output=True, text=True).stdout
            assert re.fullmatch(rf"\d+ /bin/sh {re.escape(str(script))} --method GET .*\n", shown)
        request.result()


def test_a_file_that_takes_the_place_of_the_router_information_is_read(root, daemon, sdk_host):
    following = root.directory / "router_info.new"
    following.write_text("pairing_key: another\n", encoding="utf-8")
    following.rename(root.router_info)
    daemon.hang_up()
    assert ask(root.https_port, "GET", "/api/1/x", headers=[("PairingKey", "another")],
               tls=True).status == 200


def test_the_first_address_of_a_record_names_the_sender(root, daemon):
    daemon.send_signal(signal.SIGSEGV)
    assert daemon.wait_for_exit() == -signal.SIGSEGV
    record = (root.directory / "tmp" / "tavlo-backtrace.log").read_text(encoding="utf-8")
    address = int(re.search(r"^Fault Address: (0x[0-9a-f]+)$", record, re.M)[1], 16)
    assert address & 0xFFFFFFFF == os.getpid()
