"""A console that nobody reads: it loses lines, and holds up nobody."""

import os
import pty
import re
import signal
import socket

import pytest

from support.clients import Client, ask

# With -d more than any of them holds.
REQUESTS = 700


class Console:
    """What the daemon has for its standard error, and the end that should be read."""

    def __init__(self, kind):
        if kind == "terminal":
            self.reader, self.writer = pty.openpty()
        elif kind == "socket":
            ends = socket.socketpair()
            self.reader, self.writer = (end.detach() for end in ends)
        else:
            self.reader, self.writer = os.pipe()

    def close(self):
        os.close(self.reader)
        os.close(self.writer)

    def read(self):
        """What is there."""
        os.set_blocking(self.reader, False)
        text = b""
        try:
            while part := os.read(self.reader, 65536):
                text += part
        except BlockingIOError:
            pass
        return text.decode().replace("\r\n", "\n")


@pytest.fixture(params=["pipe", "terminal", "socket"])
def console(request):
    made = Console(request.param)
    yield made
    made.close()


@pytest.fixture(params=[(), ("-s",)], ids=["console", "console and system log"])
def daemon(request, root, make_daemon, console, sdk_host):
    return make_daemon(options=["-d", *request.param]).start(stderr=console.writer)


def ask_often(root, daemon):
    mark = daemon.mark()
    for tls in (False, True):
        with Client(root.https_port if tls else root.http_port, tls=tls) as client:
            for _ in range(REQUESTS // 2):
                assert client.ask("GET", "/api/mac").status == 200
    assert daemon.count_in_log("GET /api/mac$", mark) == REQUESTS


def test_requests_are_served_and_it_ends_when_it_is_asked_to(root, daemon):
    ask_often(root, daemon)
    daemon.send_signal(signal.SIGTERM)
    assert daemon.wait_for_exit() == 0
    assert "INFO: void Run: Exit by signal 15" in daemon.log_text()


def test_lines_of_which_only_a_part_is_taken_hold_up_nobody(root, daemon):
    uri = "/" + "x" * 1900
    with Client(root.http_port) as client:
        for _ in range(100):
            assert client.ask("GET", uri).status == 404


def test_what_was_left_out_is_told_when_it_is_read_again(root, daemon, console):
    ask_often(root, daemon)
    before = console.read()
    assert "tavlo started" in before
    mark = daemon.mark()
    assert ask(root.http_port, "GET", "/to-be-seen").status == 404
    daemon.wait_for_log("GET /to-be-seen$", since=mark)
    shown = re.search(r"INFO: void Orx::Log::Message2: Lines that the console did not take: (\d+)\n",
                      console.read())
    assert int(shown[1]) > 0
    if "-s" not in daemon.options:  # else lines come twice
        assert before.count("\n") + int(shown[1]) == daemon.log_text()[:mark].count("\n")


def test_a_crash_is_recorded(root, daemon):
    ask_often(root, daemon)
    daemon.send_signal(signal.SIGSEGV)
    assert daemon.process.wait(30) == -signal.SIGSEGV
    assert "Process exit due to signal: 11" in (
        root.directory / "tmp" / "tavlo-backtrace.log").read_text()
    assert "CrashHandler: Process exit due to signal: 11" in daemon.log_text()


def test_other_writers_to_a_terminal_or_a_pipe_wait_as_ever(daemon, console):
    assert os.get_blocking(console.writer)
    assert daemon.is_running()
