"""Starting: what makes it fail, and what is in place afterwards."""

import os
import pwd
import socket

import pytest

from support.clients import ask
from support.daemon import PROGRAM
from support.network_namespace import NetworkNamespace
from support.waiting import EMULATOR, SANITIZER, wait_until


def start_and_fail(daemon):
    daemon.launch()
    assert daemon.wait_for_exit() == 1
    lines = daemon.log_text().splitlines()
    assert lines[-1].endswith("DEBUG: bool Init: Leave")
    assert "tavlo started" not in daemon.log_text()
    return lines[-2]


@pytest.mark.parametrize("setting", ["agentHttpPort", "agentHttpsPort"])
def test_a_port_that_is_taken_is_named(root, make_daemon, setting):
    port = root.settings[setting]
    with socket.create_server(("127.0.0.1", port)):
        line = start_and_fail(make_daemon())
    assert line.endswith("ERROR: bool Init: Failed to create AgentHost: "
                         f"Failed to bind endpoint '127.0.0.1:{port}' errno 98")


def test_both_listeners_on_one_port_do_not_start(root, make_daemon):
    root.settings["agentHttpsPort"] = root.http_port
    line = start_and_fail(make_daemon())
    assert line.endswith(f"Failed to bind endpoint '127.0.0.1:{root.http_port}' errno 98")


def test_a_failed_start_says_enter_and_leave_once(root, make_daemon):
    daemon = make_daemon()
    with socket.create_server(("127.0.0.1", root.http_port)):
        start_and_fail(daemon)
    assert daemon.count_in_log("DEBUG: bool Init: Enter$") == 1
    assert daemon.count_in_log("DEBUG: bool Init: Leave$") == 1


def test_a_daemon_without_a_configuration_file_uses_the_defaults(tmp_path):
    with NetworkNamespace() as namespace:
        log = tmp_path / "log"
        with namespace.start(*PROGRAM, "-f", log) as process:
            wait_until(lambda: log.exists() and "tavlo started" in log.read_text(), "its start")
            assert namespace.listening() == {("127.0.0.1", 60278), ("127.0.0.1", 60279)}
            process.terminate()
            assert process.wait() == 0


def test_loopback_is_served_as_soon_as_it_has_started(daemon):
    assert ask(daemon.root.http_port, "GET", "/").status == 404
    assert ask(daemon.root.https_port, "GET", "/", tls=True).status == 404


def test_it_starts_with_nothing_but_the_ports_configured(root, make_daemon):
    for key in list(root.settings):
        if not key.endswith("Port"):
            root.settings[key] = None
    daemon = make_daemon().launch()
    daemon.wait_for_log("tavlo started")
    daemon.stop()


def test_a_missing_destination_certificate_or_router_information_does_not_matter(root,
                                                                                make_daemon):
    for path in (root.certificate, root.key, root.router_info, root.device_list):
        path.unlink()
    make_daemon().start().stop()


def test_an_empty_agent_user_keeps_the_identity(daemon):
    status = dict(line.split(":\t", 1) for line in
                  open(f"/proc/{daemon.pid}/status", encoding="ascii") if ":\t" in line)
    assert status["Uid"].split() == [str(os.getuid())] * 4
    assert status["Gid"].split() == [str(os.getgid())] * 4
    assert "Running as" not in daemon.log_text()


@pytest.mark.skipif(os.getuid() != 0, reason="only root can become somebody else")
def test_a_configured_agent_user_is_who_it_runs_as(root, make_daemon):
    root.settings["agentUser"] = "nobody"
    daemon = make_daemon().start()
    account = pwd.getpwnam("nobody")
    status = dict(line.split(":\t", 1) for line in
                  open(f"/proc/{daemon.pid}/status", encoding="ascii") if ":\t" in line)
    assert status["Uid"].split() == [str(account.pw_uid)] * 4
    assert status["Gid"].split() == [str(account.pw_gid)] * 4
    lines = daemon.log_text().splitlines()
    changed = next(i for i, line in enumerate(lines)
                   if line.endswith(" DEBUG: bool Init: Running as 'nobody'"))
    assert lines[changed + 1].endswith(" DEBUG: bool Init: Leave")
    # The sockets, bound before, serve on.
    assert ask(root.http_port, "GET", "/").status == 404


def test_an_unknown_agent_user_stops_the_start(root, make_daemon):
    root.settings["agentUser"] = "nobody-of-that-name"
    line = start_and_fail(make_daemon())
    assert line.endswith(" ERROR: bool Init: Failed to change user identity to "
                         "'nobody-of-that-name': Failed to resolve user id 'nobody-of-that-name'")


def test_it_runs_one_thread_for_each_listener_beside_the_main_one(daemon):
    # ThreadSanitizer has one of its own, and so has an emulator.
    assert daemon.threads() == (4 if SANITIZER == "thread" or EMULATOR else 3)


@pytest.mark.skipif(SANITIZER != "" or EMULATOR != "", reason="it would be another's memory too")
def test_at_rest_it_has_at_most_ten_megabytes_of_memory(daemon):
    assert daemon.resident_kib() * 1024 <= 10_000_000


def test_both_listener_threads_log_under_their_own_identity(daemon):
    mark = daemon.mark()
    ask(daemon.root.http_port, "GET", "/plain")
    ask(daemon.root.https_port, "GET", "/tls", tls=True)
    plain = daemon.wait_for_log(r"\[(\w+)\.(\w+)\] INFO: .*GET /plain$", since=mark)[0]
    tls = daemon.wait_for_log(r"\[(\w+)\.(\w+)\] INFO: .*GET /tls$", since=mark)[0]
    main = daemon.wait_for_log(r"\[(\w+)\.(\w+)\] INFO: .*tavlo started$")[0]
    assert plain[1] == tls[1] == main[1] == format(daemon.pid, "x")
    assert len({plain[2], tls[2], main[2]}) == 3


def test_a_daemon_without_standard_descriptors_sends_no_client_its_log(root, make_daemon):
    daemon = make_daemon(prefix=["sh", "-c", 'exec "$0" "$@" <&- >&- 2>&-']).start()
    for number in range(3):
        assert os.readlink(f"/proc/{daemon.pid}/fd/{number}") == "/dev/null"
    assert ask(root.http_port, "GET", "/elsewhere").status == 404
