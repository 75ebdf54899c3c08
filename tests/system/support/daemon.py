"""The daemon as a process: starting and stopping it, its log, and how it looks from outside."""

import ctypes
import errno
import itertools
import os
import re
import shlex
import signal
import socket
import subprocess
from pathlib import Path

from support.waiting import DEFAULT_LIMIT, EMULATOR, wait_until

BINARY = os.environ["TAVLO_BINARY"]
# One for another processor is started by an emulator.
PROGRAM = [*shlex.split(EMULATOR), BINARY]

# The processor that the ELF header names.
IS_FOR_32_BIT_ARM = Path(BINARY).read_bytes()[18] == 40
# The loader that it asks for.
IS_WITH_MUSL = b"/ld-musl-" in Path(BINARY).read_bytes()

# Nothing that a test starts outlives it, even if the test itself is killed.
DIE_WITH_PARENT = ["setpriv", "--pdeathsig", "KILL"]

LOG_LINE = re.compile(
    r"^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} \[([0-9a-f]+)\.([0-9a-f]+)\] "
    r"(ERROR|INFO|DEBUG): (.*?): (.*)$")

# What the main thread logs on its own, whatever a test does.
MAIN_THREAD_FUNCTIONS = ("void Run", "void UpdatePairingKey", "void UpdateLanAddress",
                         "void tavlo::AgentHost::BindSrcAddr",
                         "void tavlo::AgentHost::SetPairingKey")

# What a listener logs of every connection and answer, whatever they are.
CONNECTION_FUNCTIONS = ("void tavlo::ClientTable::TakeIn", "void tavlo::ClientTable::LogAnswer")

SANITIZER_REPORT = re.compile(
    rb"^.*(?:ERROR: \w+Sanitizer|WARNING: ThreadSanitizer|runtime error:|SUMMARY: \w+Sanitizer).*$",
    re.MULTILINE)

PIDFD_GETFD = 438  # the system call's number, the same on every architecture


def run_tavlo(*arguments, **options):
    """Runs the daemon's program to its end; for command lines that do not start the daemon."""
    result = subprocess.run([*DIE_WITH_PARENT, *PROGRAM, *map(str, arguments)],
                            capture_output=True, text=True, timeout=DEFAULT_LIMIT, check=False,
                            **options)
    assert_no_sanitizer_report(result.stderr.encode())
    return result


def is_at_rest(thread):
    """Whether it waits: one that is hit while it logs can log no more. A process is its main thread."""
    stat = Path(f"/proc/{thread}/stat").read_text(encoding="ascii")
    return stat.rpartition(")")[2].split()[0] == "S"


def wait_for_rest(thread):
    wait_until(lambda: is_at_rest(thread), "the rest of the thread")


def assert_no_sanitizer_report(output):
    report = SANITIZER_REPORT.search(output)
    assert report is None, output[report.start():].decode(errors="replace")


class Daemon:
    """One process. `log` is the file given with -f, `console` what it wrote on its terminal."""

    def __init__(self, root, options=("-d",), prefix=()):
        self.root = root
        self.log = root.directory / "log"
        self.console = root.directory / "console"
        self.options = list(options)
        self.prefix = list(prefix)
        self.process = None
        self.emulator_kib = 0

    def launch(self, **popen_options):
        """Starts the process and does not wait for anything."""
        self.root.write_config()
        with open(self.console, "wb") as console:
            popen_options = {"stdin": subprocess.DEVNULL, "stdout": console, "stderr": console,
                             **popen_options}
            self.process = subprocess.Popen(
                [*DIE_WITH_PARENT, *self.prefix, *PROGRAM, *self.options,
                 "-c", str(self.root.config), "-f", str(self.log)], **popen_options)
        return self

    def start(self, **popen_options):
        self.launch(**popen_options)
        self.wait_for_log("INFO: void Run: tavlo started$")
        if "-d" in self.options:
            # The key and the address have been looked at when the first pass ends.
            self.wait_for_log("DEBUG: void UpdateLanAddress|ERROR: void UpdateLanAddress|"
                              "DEBUG: void tavlo::AgentHost::BindSrcAddr")
        if EMULATOR:
            # Nearly all that it has now is the emulator's and no concern of ours.
            self.emulator_kib = self.resident_kib()
        return self

    @property
    def pid(self):
        return self.process.pid

    def is_running(self):
        return self.process is not None and self.process.poll() is None

    def send_signal(self, number):
        os.kill(self.pid, number)

    def hang_up(self):
        """Sends SIGHUP and waits until it has been dealt with; looks at the console, which has all
        lines whatever becomes of the log. Returns the place in the console before it."""
        mark = self.console.stat().st_size
        self.send_signal(signal.SIGHUP)
        # The key of an earlier pass may come to be logged in between.
        self.wait_for_log(r"void Run: HUP\n(?s:.*)(?:SetPairingKey|ERROR: void UpdatePairingKey): .*$",
                          since=mark, path=self.console)
        return mark

    def wait_for_exit(self, limit=DEFAULT_LIMIT):
        status = self.process.wait(limit)
        assert_no_sanitizer_report(self.console.read_bytes())
        return status

    def stop(self):
        """Ends the daemon as its operator would; it must leave in good order."""
        assert self.is_running(), f"the daemon has ended with {self.process.returncode}"
        self.send_signal(signal.SIGTERM)
        assert self.wait_for_exit() == 0

    def crash(self, number=signal.SIGSEGV):
        wait_for_rest(self.pid)
        self.send_signal(number)
        assert self.process.wait(DEFAULT_LIMIT) == -number

    def kill(self):
        if self.is_running():
            self.process.kill()
            self.process.wait()

    # --- what it logs ---

    def mark(self):
        """A place in the log; what is logged from now on comes after it."""
        return self.log.stat().st_size if self.log.exists() else 0

    def log_text(self, since=0, path=None):
        path = path or self.log
        if not path.exists():
            return ""
        with open(path, "rb") as file:
            file.seek(since)
            return file.read().decode(errors="surrogateescape")

    def wait_for_log(self, pattern, limit=DEFAULT_LIMIT, since=0, path=None, count=1):
        """Waits until `pattern` was found `count` times in the log, or in the file `path`;
        returns the matches."""
        expression = re.compile(pattern, re.MULTILINE)

        def look():
            was_running = self.is_running()
            text = self.log_text(since, path)
            # A line that is being written may be seen in part.
            found = list(expression.finditer(text[:text.rfind("\n") + 1]))
            if len(found) >= count:
                return found
            # A process that is gone logs no more.
            assert was_running, (f"ended with {self.process.returncode} before it logged "
                                       f"{pattern!r}")
            return None

        return wait_until(look, f"{pattern!r} in the log", limit)

    def count_in_log(self, pattern, since=0):
        return len(re.findall(pattern, self.log_text(since), re.MULTILINE))

    def messages(self, since=0):
        """What the listeners have logged of requests, as pairs of level and text. Every line must
        have the proper form."""
        found = []
        for line in self.log_text(since).split("\n")[:-1]:
            parts = LOG_LINE.match(line)
            assert parts, f"not a line of the log: {line!r}"
            if parts[4] not in (*MAIN_THREAD_FUNCTIONS, *CONNECTION_FUNCTIONS):
                found.append((parts[3], parts[5]))
        return found

    # --- what it looks like from outside ---

    def descriptors(self):
        return sorted(map(int, os.listdir(f"/proc/{self.pid}/fd")))

    def _status_number(self, field):
        with open(f"/proc/{self.pid}/status", encoding="ascii") as status:
            for line in status:
                if line.startswith(field + ":"):
                    return int(line.split()[1])
        raise KeyError(field)

    def threads(self):
        return self._status_number("Threads")

    def zombies(self):
        """The process numbers of children that have ended and were not waited for."""
        listing = subprocess.run(["ps", "-o", "stat=,pid=", "--ppid", str(self.pid)], check=False,
                                 capture_output=True, text=True).stdout
        return [int(line.split()[1]) for line in listing.splitlines() if line.startswith("Z")]

    def resident_kib(self):
        return self._status_number("VmRSS")

    def peak_resident_kib(self):
        return self._status_number("VmHWM") - self.emulator_kib

    def _socket_inodes(self):
        found = set()
        for descriptor in self.descriptors():
            try:
                target = os.readlink(f"/proc/{self.pid}/fd/{descriptor}")
            except FileNotFoundError:
                continue  # closed meanwhile
            if target.startswith("socket:["):
                found.add(target[len("socket:["):-1])
        return found

    def _listed_sockets(self, table):
        """The fields of each line of a table of the kernel's. Connections in TIME-WAIT are nobody's any
        more, and thousands beside other tests."""
        with open(f"/proc/{self.pid}/net/{table}", encoding="utf-8") as lines:
            return [line.split() for line in itertools.islice(lines, 1, None) if " 06 " not in line]

    def _tcp_sockets(self, own):
        """The pairs of ports by the numbers of its sockets."""
        # A socket may come twice: the kernel does not hold the table still.
        return {fields[9]: tuple(int(end.split(":")[1], 16) for end in fields[1:3])
                for fields in self._listed_sockets("tcp") if fields[9] in own}

    def sockets(self):
        """Pairs of local and remote port of its TCP sockets over IPv4; a remote port of 0 means
        that the socket listens."""
        return list(self._tcp_sockets(self._socket_inodes()).values())

    def _is_client(self, pair):
        return pair[0] in (self.root.http_port, self.root.https_port) and pair[1] != 0

    def client_connections(self):
        return [pair for pair in self.sockets() if self._is_client(pair)]

    def has_connection_to(self, port):
        return any(remote == port for _, remote in self.sockets())

    def _holds_clients(self):
        """Whether it still holds a client's socket, of a connection that is gone too, by a reset for
        one: the kernel lists such a socket nowhere. All in one look at its TCP sockets, since one that
        the table lacks now may be there, or be gone, at the next."""
        own = self._socket_inodes()
        found = self._tcp_sockets(own)
        if any(map(self._is_client, found.values())):
            return True
        unlisted = own - found.keys()
        for table in ("netlink", "unix", "udp", "tcp6", "udp6"):
            if unlisted:
                unlisted.difference_update(*self._listed_sockets(table))
        return bool(unlisted)

    def wait_for_no_clients(self):
        wait_until(lambda: not self._holds_clients(), "the end of all clients' connections")

    def borrow_socket(self, descriptor):
        """A copy of one of its sockets, to ask it for its options; None when it is no socket, or has
        been closed."""
        libc = ctypes.CDLL(None, use_errno=True)
        process = os.pidfd_open(self.pid)
        copy = libc.syscall(PIDFD_GETFD, process, descriptor, 0)
        error = ctypes.get_errno()
        os.close(process)
        if copy < 0:
            if error == errno.EBADF:
                return None
            raise OSError(error, os.strerror(error))
        try:
            return socket.socket(fileno=copy)
        except OSError:
            os.close(copy)
            return None
