"""What the log tells those who look for a fault: with -d of connections, answers and scripts, and at
any level of scripts that cannot be started."""

import re
import time

import pytest

from support.clients import Client, ask, connect, exchange
from support.scratch_root import PAIRING_KEY

KEY = {"PairingKey": PAIRING_KEY}
ANSWERED = re.compile(r" DEBUG: void tavlo::ClientTable::OnAnswer: Answered (\d+) to "
                      r"127\.0\.0\.1:(\d+): (\d+) bytes, (\d+) ms since its request$", re.MULTILINE)


def port_of(root, tls):
    return root.https_port if tls else root.http_port


def answers(daemon, mark=0):
    """Status, the client's port, bytes and milliseconds of each."""
    return [tuple(map(int, found)) for found in ANSWERED.findall(daemon.log_text(mark))]


def received(port, request, tls=False):
    """The client's port and all that it got."""
    with connect(port, tls=tls) as connection:
        own = connection.getsockname()[1]
        connection.sendall(request)
        parts = []
        while part := connection.recv(65536):
            parts.append(part)
    return own, b"".join(parts)


def request(uri, key=""):
    return (f"GET {uri} HTTP/1.1\r\nHost: x\r\nConnection: close\r\nPairingKey: {key}\r\n"
            "\r\n").encode()


@pytest.mark.parametrize("tls", [False, True])
def test_each_accepted_connection_is_a_line(root, daemon, tls):
    with connect(port_of(root, tls), tls=tls) as connection:
        own = connection.getsockname()[1]
        daemon.wait_for_log(rf"DEBUG: void tavlo::ClientTable::TakeIn: Accepted 127\.0\.0\.1:{own}$")
    exchange(port_of(root, tls), request("/elsewhere"), tls)
    assert daemon.count_in_log(r": Accepted ") == 2


@pytest.mark.parametrize("tls", [False, True])
@pytest.mark.parametrize("uri, status", [("/elsewhere", 404), ("/api/mac", 200),
                                         ("/api/version", 200)])
def test_each_answer_is_a_line_with_all_its_bytes(root, daemon, sdk_host, tls, uri, status):
    own, answer = received(port_of(root, tls), request(uri, PAIRING_KEY), tls)
    assert answer.startswith(b"HTTP/1.1 %d " % status)
    [(logged, port, size, milliseconds)] = answers(daemon)
    assert (logged, port, size) == (status, own, len(answer))
    assert milliseconds < 30000


def test_the_time_of_an_answer_is_from_its_request_on(root, make_daemon):
    root.settings["agentDataPath"] = str(root.agent_data)
    root.write_hook(root.external_hooks, "10-slow", "#!/bin/sh\nsleep 0.5\nexit 1\n")
    daemon = make_daemon().start()
    before = time.monotonic()
    with Client(root.http_port) as client:
        assert client.ask("GET", "/").status == 404
        assert client.ask("GET", "/api/version").status == 200
        assert client.ask("GET", "/").status == 404
    elapsed = 1000 * (time.monotonic() - before)
    times = [each[3] for each in answers(daemon)]
    assert len(times) == 3
    assert times[1] >= 500
    # From the beginning of the connection on, the last one would have the slow one's time as well.
    assert sum(times) <= elapsed


def test_the_answer_of_a_client_that_has_gone_is_none(root, daemon):
    with connect(root.http_port) as connection:
        connection.sendall(b"GET /api/ver")
    daemon.wait_for_no_clients()
    assert answers(daemon) == []


@pytest.mark.parametrize("status", [0, 1, 7])
def test_each_script_is_a_line_with_its_number_status_time_and_path(root, make_daemon, status):
    root.settings["agentDataPath"] = str(root.agent_data)
    pid = root.directory / "pid"
    script = root.write_hook(root.external_hooks, "10-tell",
                             f"#!/bin/sh\necho $$ >{pid}\nexit {status}\n")
    daemon = make_daemon().start()
    ask(root.http_port, "GET", "/api/version")
    [line] = [text for level, text in daemon.messages()
              if level == "DEBUG" and " ended with status " in text]
    assert re.fullmatch(rf"PID {pid.read_text().strip()} ended with status {status} after \d+ ms: "
                        f"{re.escape(str(script))}", line)


@pytest.mark.parametrize("text, mode, reason", [
    ("#!/bin/sh\nexit 0\n", 0o644, "13 Permission denied"),
    ("#!/bin/sh\r\nexit 0\n", 0o755, "2 No such file or directory"),
    ("#!/nowhere/sh\nexit 0\n", 0o755, "2 No such file or directory"),
], ids=["not executable", "carriage return", "no interpreter"])
@pytest.mark.parametrize("options", [[], ["-d"]], ids=["default level", "debug"])
def test_a_script_that_cannot_be_executed_is_an_error_with_the_reason(root, make_daemon, options,
                                                                      text, mode, reason):
    root.settings["agentDataPath"] = str(root.agent_data)
    script = root.write_hook(root.external_hooks, "10-broken", text)
    script.chmod(mode)
    daemon = make_daemon(options=options).start()
    for number in range(1, 4):
        assert ask(root.http_port, "GET", "/api/version").body == b""
        assert daemon.count_in_log(
            f"ERROR: int Orx::SecureExec: Failed to execute {re.escape(str(script))}: "
            f"{reason}$") == number
    script.write_text("#!/bin/sh\nexit 1\n")
    script.chmod(0o755)
    assert ask(root.http_port, "GET", "/api/version").body == b""
    assert daemon.count_in_log("ERROR: int Orx::SecureExec") == 3


def test_each_listener_says_at_its_start_what_it_serves(root, daemon):
    before = daemon.log_text().partition("tavlo started")[0]
    assert f"DEBUG: void tavlo::AgentHost::LogEndpoint: Serves 127.0.0.1:{root.http_port}: plain " \
        "HTTP\n" in before
    assert f": Serves 127.0.0.1:{root.https_port}: TLS\n" in before
    assert before.count(": Serves ") == 2


@pytest.mark.parametrize("missing", ["certificate", "key"])
def test_a_tls_listener_without_its_files_says_that_it_serves_plain_http(root, make_daemon, missing):
    getattr(root, missing).unlink()
    daemon = make_daemon().start()
    assert daemon.count_in_log(f": Serves 127.0.0.1:{root.https_port}: plain HTTP, for want of "
                               "certificate and key$") == 1


def test_nothing_of_it_is_there_at_the_default_level(root, make_daemon, sdk_host):
    root.settings["agentDataPath"] = str(root.agent_data)
    root.write_hook(root.external_hooks, "10-pass", "#!/bin/sh\nexit 0\n")
    daemon = make_daemon(options=[]).start()
    for tls in (False, True):
        assert ask(port_of(root, tls), "GET", "/api/version", headers=KEY, tls=tls).status == 200
    text = daemon.log_text()
    assert "DEBUG" not in text
    assert text.count(" INFO: void tavlo::AgentHost::DispatchRequest: ") == 2


# One line has it, and is an old one.
def test_a_wrong_key_is_in_no_other_line(root, daemon):
    assert ask(root.https_port, "GET", "/api/version", headers={"PairingKey": "a-wrong-one"},
               tls=True).status == 417
    assert len(answers(daemon)) == 1
    assert daemon.log_text().count("a-wrong-one") == 1


@pytest.mark.parametrize("options", [[], ["-d"]], ids=["default level", "debug"])
def test_missing_router_information_is_an_error_at_the_start(root, make_daemon, options):
    root.router_info.unlink()
    daemon = make_daemon(options=options).start()
    daemon.wait_for_log("ERROR: void Run: Failed to find the router information file "
                        f"{root.router_info}: 2 No such file or directory$")
    daemon.stop()
    assert daemon.count_in_log("ERROR: void Run: ") == 1
