"""The fixtures of the system tests, for documents that speak of the running daemon."""

import importlib.util
import sys
from pathlib import Path

SYSTEM = Path(__file__).resolve().parents[1] / "system"

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
