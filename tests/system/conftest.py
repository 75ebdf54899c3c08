"""Fixtures: each test gets a scratch root of its own, free ports, and a daemon that must leave in
good order."""

import shutil
import tempfile
from contextlib import contextmanager
from pathlib import Path

import pytest

from sdk_rest_host import SdkRestHost
from support.daemon import Daemon
from support.network_namespace import NetworkNamespace
from support.room import many_descriptors
from support.scratch_root import ScratchRoot

SHOWN_LINES = 40
USER = "nobody"  # whose an `owned` set-up is


@contextmanager
def scratch_root():
    with tempfile.TemporaryDirectory(prefix="tavlo-test-") as directory:
        yield ScratchRoot(Path(directory))


@contextmanager
def daemons(root):
    """A function that makes a daemon, not yet started, on `root`. What still runs at the end is
    stopped, and must have nothing to complain about."""
    made = []

    def make(**options):
        made.append(Daemon(root, **options))
        return made[-1]

    try:
        yield make
        for daemon in made:
            if daemon.process is not None and daemon.process.returncode is None:
                daemon.stop()
    finally:
        for daemon in made:
            daemon.kill()


@pytest.fixture
def root():
    with scratch_root() as made:
        yield made


@pytest.fixture
def asked(root):
    """A set-up whose scripts see requests, and find a body in a directory of its own."""
    (root.directory / "run").mkdir(mode=0o750)
    root.settings["agentDataPath"] = str(root.directory / "run/body")
    return root


@pytest.fixture
def owned(asked):
    """The same for an `agentUser`, to whom everything belongs; the scripts are root's."""
    asked.settings["agentUser"] = USER
    scripts = {asked.internal_hooks, asked.external_hooks}
    for path in (asked.directory, *asked.directory.rglob("*")):
        if scripts.isdisjoint({path, *path.parents}):
            shutil.chown(path, USER)
    return asked


@pytest.fixture
def lan(root):
    """A network with an interface that clients could come from."""
    with NetworkNamespace() as network:
        network.add_interface("lan0", "192.0.2.1/24")
        root.settings["lanInterface"] = "lan0"
        yield network


@pytest.fixture
def make_daemon(root):
    with daemons(root) as make:
        yield make


@pytest.fixture
def enough_descriptors():
    """For tests that are more clients than a process usually may be."""
    with many_descriptors():
        yield


@pytest.fixture
def sdk_host(root):
    with SdkRestHost(root.destination_port) as host:
        yield host


@pytest.fixture
def daemon(make_daemon):
    """A running daemon that logs everything, with nobody at its destination unless the test also
    asks for `sdk_host`."""
    return make_daemon().start()


@pytest.fixture(scope="module")
def shared():
    """For tests that leave no trace: one daemon and one SDK REST host for a whole file."""
    with scratch_root() as root, SdkRestHost(root.destination_port) as host, \
            daemons(root) as make:
        daemon = make().start()
        daemon.sdk_host = host
        yield daemon


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item):
    """Shows the end of the daemon's console beside a failure."""
    report = (yield).get_result()
    if not report.failed:
        return
    for name in ("root", "shared"):
        value = item.funcargs.get(name)
        directory = getattr(getattr(value, "root", value), "directory", None)
        console = directory / "console" if directory else None
        if console and console.exists():
            lines = console.read_text(errors="replace").splitlines()[-SHOWN_LINES:]
            report.sections.append(("console of the daemon", "\n".join(lines)))
