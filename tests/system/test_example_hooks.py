"""The scripts in examples/hooks, run by the daemon as an integrator would install them."""

import fcntl
import os
import re
from pathlib import Path

import pytest

from support.clients import ask
from support.waiting import open_fifo_for_its_reader, wait_until

EXAMPLES = Path(__file__).resolve().parents[2] / "examples" / "hooks"


@pytest.fixture(params=["/bin/sh", "/bin/busybox ash"])
def start(request, root, make_daemon, sdk_host):
    """Starts a daemon with one example installed and these variables in its environment. A router
    has busybox for its shell."""
    (root.external_hooks / "agent").rmdir()
    root.settings["agentDataPath"] = str(root.agent_data)

    def start_with(example, **variables):
        text = (EXAMPLES / example).read_text()
        assert text.startswith("#!/bin/sh\n")
        root.write_hook(root.internal_hooks, example, text.replace("/bin/sh", request.param, 1))
        return make_daemon().start(env={**os.environ, **variables})

    return start_with


def change(root, uri="/api/1/router-ref"):
    return ask(root.http_port, "PATCH", uri, body=b'{"ref":1}')


def test_audit_writes_a_line_for_each_request(root, start, sdk_host):
    file = root.directory / "audit"
    start("10-audit", AUDIT_FILE=str(file))
    assert change(root).status == 200
    assert ask(root.http_port, "GET", "/api/version").status == 200
    first, second = file.read_text().splitlines()
    stamp = r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ"
    assert re.fullmatch(stamp + " PATCH /api/1/router-ref 9", first)
    assert re.fullmatch(stamp + " GET /api/version 0", second)
    assert len(sdk_host.requests) == 2


def test_audit_lets_requests_pass_when_it_cannot_write(root, start, sdk_host):
    daemon = start("10-audit", AUDIT_FILE=str(root.directory / "missing" / "audit"))
    assert change(root).status == 200
    assert len(sdk_host.requests) == 1
    assert any(text.startswith("stderr from pid ") for _, text in daemon.messages())


@pytest.mark.parametrize("hours, forwarded", [(("0", "24"), 1), (("0", "0"), 0)],
                         ids=["inside", "outside"])
def test_office_hours_ends_changes_outside_them(root, start, sdk_host, hours, forwarded):
    start("20-office-hours", FROM_HOUR=hours[0], UNTIL_HOUR=hours[1])
    assert change(root).status == 200
    assert len(sdk_host.requests) == forwarded


def test_office_hours_lets_reading_pass_at_any_time(root, start, sdk_host):
    start("20-office-hours", FROM_HOUR="0", UNTIL_HOUR="0")
    assert ask(root.http_port, "GET", "/api/version").status == 200
    assert len(sdk_host.requests) == 1


def test_reload_service_reloads_under_the_lock_after_the_request(root, start, sdk_host):
    lock, reloads = root.directory / "lock", root.directory / "reloads"
    script = root.directory / "reload"
    # It says whether somebody holds the lock while it runs.
    script.write_text(f"#!/bin/sh\nflock -n {lock} true; echo \"held $?\" >>{reloads}\n")
    script.chmod(0o755)
    start("30-reload-service", LOCK_FILE=str(lock), RELOAD=str(script))
    assert change(root).status == 200
    wait_until(lambda: reloads.exists() and reloads.read_text() == "held 1\n", "the reload")


def write_logger(directory):
    """A `logger` that notes what it was given; returns the PATH that has it."""
    program = directory / "logger"
    logged = directory / "logged"  # there once it is whole
    program.write_text(f'#!/bin/sh\necho "$*" >{logged}.new && mv {logged}.new {logged}\n')
    program.chmod(0o755)
    return f"{directory}:{os.environ['PATH']}"


def test_reload_service_says_when_it_gives_up(root, start, sdk_host):
    lock, reloads = root.directory / "lock", root.directory / "reloads"
    script = root.directory / "reload"
    script.write_text(f"#!/bin/sh\necho >>{reloads}\n")
    script.chmod(0o755)
    start("30-reload-service", LOCK_FILE=str(lock), LOCK_SECONDS="1", RELOAD=str(script),
          PATH=write_logger(root.directory))
    with lock.open("w") as held:
        fcntl.flock(held, fcntl.LOCK_EX)
        assert change(root).status == 200
        wait_until((root.directory / "logged").exists, "a line in the system log")
    assert (root.directory / "logged").read_text() == f"-t tavlo-hook reload failed: {script}\n"
    assert not reloads.exists()


def test_reload_service_says_when_it_may_not_lock(root, start, sdk_host):
    start("30-reload-service", LOCK_FILE=str(root.directory / "missing" / "lock"), RELOAD="true",
          PATH=write_logger(root.directory))
    assert change(root).status == 200
    wait_until((root.directory / "logged").exists, "a line in the system log")


def test_reload_service_reloads_for_its_own_endpoint_only(root, start, sdk_host):
    lock = root.directory / "lock"
    start("30-reload-service", LOCK_FILE=str(lock), RELOAD="true")
    assert change(root, "/api/1/router-attribution-id").status == 200
    assert ask(root.http_port, "GET", "/api/version").status == 200
    assert not lock.exists()


class Notifier:
    """A program that waits for a word before it notes what it was told, and a `logger` that notes what
    it was given."""

    def __init__(self, directory):
        self.directory = directory
        self.gate = directory / "gate"
        os.mkfifo(self.gate)
        self.told = directory / "told"
        self.logged = directory / "logged"
        self.program = self._write("notify", f'cat {self.gate}; echo "$*: $(cat)" >>{self.told}')
        self.variables = {"LOCK_FILE": str(directory / "slot"), "NOTIFY": str(self.program),
                          "PATH": write_logger(directory), "TMPDIR": str(directory / "tmp")}

    def _write(self, name, text):
        path = self.directory / name
        path.write_text(f"#!/bin/sh\n{text}\n")
        path.chmod(0o755)
        return path

    def let_go(self):
        open_fifo_for_its_reader(self.gate).close()

    def wait(self, path, text):
        wait_until(lambda: path.exists() and path.read_text() == text, repr(text))


@pytest.fixture
def notifier(root):
    return Notifier(root.directory)


def test_notify_tells_the_body_that_is_gone_when_it_is_read(root, start, sdk_host, notifier):
    start("40-notify", **notifier.variables)
    root.write_hook(root.internal_hooks, "90-empties-the-body", '#!/bin/sh\n: >"$6"\nexit 0\n')
    before = set((root.directory / "tmp").iterdir())
    assert change(root).status == 200
    assert len(sdk_host.requests) == 1
    assert not root.agent_data.exists()
    notifier.let_go()
    notifier.wait(notifier.told, 'PATCH /api/1/router-ref: {"ref":1}\n')
    assert set((root.directory / "tmp").iterdir()) == before
    assert not notifier.logged.exists()


def test_notify_tells_of_a_change_without_a_body_and_not_of_reading(root, start, sdk_host, notifier):
    start("40-notify", **notifier.variables)
    assert ask(root.http_port, "GET", "/api/version").status == 200
    assert ask(root.http_port, "PATCH", "/api/1/router-ref").status == 200
    notifier.let_go()
    notifier.wait(notifier.told, "PATCH /api/1/router-ref: \n")


def test_notify_leaves_out_what_comes_while_all_slots_are_busy(root, start, sdk_host, notifier):
    start("40-notify", SLOTS="1", **notifier.variables)
    assert change(root).status == 200
    with open_fifo_for_its_reader(notifier.gate):
        assert change(root, "/api/2/router-ref").status == 200
        notifier.wait(notifier.logged, "-t tavlo-hook no slot for a notice of PATCH\n")
    notifier.wait(notifier.told, 'PATCH /api/1/router-ref: {"ref":1}\n')


@pytest.mark.parametrize("missing", ["LOCK_FILE", "TMPDIR"])
def test_notify_lets_requests_pass_when_it_cannot_make_its_files(root, start, sdk_host, notifier,
                                                                 missing):
    nowhere = str(root.directory / "missing" / "file")
    daemon = start("40-notify", **{**notifier.variables, missing: nowhere})
    assert change(root).status == 200
    assert len(sdk_host.requests) == 1
    if missing == "LOCK_FILE":
        notifier.wait(notifier.logged, "-t tavlo-hook no slot for a notice of PATCH\n")
    else:
        assert any(text.startswith("stderr from pid ") for _, text in daemon.messages())
    assert not notifier.told.exists()
