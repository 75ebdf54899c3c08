"""The fixtures of the system tests, for documents that speak of the running daemon."""

import importlib.util
import re
import sys
from contextlib import ExitStack
from pathlib import Path

import pytest

from markdown import PROJECT

SYSTEM = PROJECT / "tests" / "system"
DEMONSTRATION = PROJECT / "tools" / "demonstration"

sys.path.insert(0, str(SYSTEM))
_found = importlib.util.spec_from_file_location("system_fixtures", SYSTEM / "conftest.py")
system_fixtures = importlib.util.module_from_spec(_found)
sys.modules["system_fixtures"] = system_fixtures
_found.loader.exec_module(system_fixtures)

root = system_fixtures.root
make_daemon = system_fixtures.make_daemon
sdk_host = system_fixtures.sdk_host
daemon = system_fixtures.daemon
pytest_runtest_makereport = system_fixtures.pytest_runtest_makereport


@pytest.fixture
def session(tmp_path):
    """A directory with the files of a demonstration in the same places, and its daemon at work."""
    # Only now, with the system tests' folder among the paths, as are their fixtures.
    from sdk_rest_host import SdkRestHost
    from support import tavloctl
    from support.daemon import BINARY, Daemon
    from support.scratch_root import ScratchRoot

    demonstration = DEMONSTRATION.read_text(encoding="utf-8")
    key = re.search(r'^PAIRING_KEY = "(\w+)"$', demonstration, re.M)[1]
    script = re.search(r'^AGENT_HOOK = """(.*?)"""$', demonstration, re.M | re.S)[1]
    (tmp_path / "build" / "release").mkdir(parents=True)
    for binary in (BINARY, tavloctl.BINARY):
        (tmp_path / "build" / "release" / Path(binary).name).symlink_to(Path(binary).resolve())
    (tmp_path / "build" / "demo").mkdir()
    scratch_root = ScratchRoot(tmp_path / "build" / "demo")
    scratch_root.write_pairing_key(key)
    scratch_root.settings["agentDataPath"] = str(scratch_root.agent_data)
    scratch_root.write_hook(scratch_root.internal_hooks, "10-demonstration", script)
    (scratch_root.external_hooks / "agent").rmdir()
    daemon = Daemon(scratch_root)
    with ExitStack() as stack:
        stack.enter_context(SdkRestHost(scratch_root.destination_port))
        stack.callback(daemon.kill)
        daemon.start()
        yield tmp_path
        daemon.stop()
