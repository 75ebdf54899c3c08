"""How the session of `make run` ends that stays with its log."""

import fcntl
import os
import pty
import shutil
import signal
from pathlib import Path

import pytest

from markdown import PROJECT
from support.daemon import BINARY
from support.waiting import DEFAULT_LIMIT, wait_until


@pytest.fixture
def tree(tmp_path):
    for name in ("tools/demonstration", "tools/decode-backtrace", "tests/system/sdk_rest_host.py",
                 "tests/system/support/__init__.py", "tests/system/support/ports.py"):
        (tmp_path / name).parent.mkdir(parents=True, exist_ok=True)
        shutil.copy(PROJECT / name, tmp_path / name)
    (tmp_path / "Makefile").write_text("run:\n\ttools/demonstration\n", encoding="ascii")
    release = tmp_path / "build" / "release"
    release.mkdir(parents=True)
    for name in ("tavlo", "tavlo.debug", "tavloctl"):
        (release / name).symlink_to(Path(BINARY).resolve().parent / name)
    return tmp_path


class Terminal:
    """One in which the demonstration runs, until it stays with its log."""

    def __init__(self, tree):
        self.child, self.descriptor = pty.fork()
        if self.child == 0:
            os.chdir(tree)
            signal.signal(signal.SIGINT, signal.SIG_DFL)
            os.environ.pop("ONCE", None)
            # It waits for what it has started, whatever happens to the terminal.
            os.execvp("make", ["make", "-s", "run"])
        self.text = b""
        while b"Ctrl-C ends it all" not in self.text:
            try:
                self.text += os.read(self.descriptor, 65536)
            except OSError:  # the other side has closed it
                pytest.fail(f"it ended too early:\n{self.text.decode()}")

    def wait(self):
        try:
            wait_until(lambda: os.waitpid(self.child, os.WNOHANG)[0], "the end", DEFAULT_LIMIT)
        except AssertionError:
            os.killpg(self.child, signal.SIGKILL)
            os.waitpid(self.child, 0)
            raise


def leftovers(tree):
    """Command lines of processes that work in the tree."""
    found = []
    for path in Path("/proc").glob("[0-9]*/cmdline"):
        try:
            arguments = path.read_bytes()
        except OSError:
            continue  # it has ended meanwhile
        if bytes(tree) in arguments:
            found.append(arguments)
    return found


def test_nothing_is_left_when_the_terminal_is_closed(tree):
    terminal = Terminal(tree)
    assert leftovers(tree)
    os.close(terminal.descriptor)
    terminal.wait()
    assert leftovers(tree) == []


def test_nothing_is_left_after_ctrl_c(tree):
    terminal = Terminal(tree)
    assert leftovers(tree)
    os.write(terminal.descriptor, b"\x03")
    terminal.wait()
    os.close(terminal.descriptor)
    assert leftovers(tree) == []
    with open(tree / "build" / "demo.lock", encoding="ascii") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
