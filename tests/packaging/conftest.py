"""What the tests of all ways to install share."""

import json
import os
import stat
import subprocess
import sys
import time
from pathlib import Path

import pytest

SOURCE = Path(__file__).resolve().parents[2]
BUILD = Path(os.environ["TAVLO_BUILD_DIR"])
LIMIT_SECS = 20

# What all kinds of tests share.
sys.path.insert(0, str(SOURCE / "tests/system"))


class Installation:
    """tools/install at work below a directory of its own."""

    def __init__(self, root):
        self.root = root

    def run(self, *arguments, **variables):
        environment = {name: value for name, value in os.environ.items()
                       if name not in ("DESTDIR", "PREFIX", "SYSCONFDIR")}
        environment |= {"BUILD": str(BUILD), "DESTDIR": str(self.root), **variables}
        return subprocess.run([SOURCE / "tools/install", *arguments], env=environment, check=True,
                              capture_output=True, text=True, umask=0o077).stdout


def setting_names():
    properties = json.loads((SOURCE / "tavlo.schema.json").read_text())["properties"]
    return properties.keys() - {"$schema"}


def assert_daemon_reads_as_written(path):
    """A configuration that ships: each setting is there, and none is ignored."""
    settings = json.loads(path.read_text())
    assert settings.keys() == setting_names()
    for key, value in settings.items():
        printed = subprocess.run([BUILD / "tavlo", "-c", path, "-p", key], check=True,
                                 capture_output=True, text=True).stdout
        assert printed == f"{value}\n", key


def listing(root):
    """Path -> mode, as text, of every file and every empty directory below `root`."""
    return {f"/{path.relative_to(root)}": stat.filemode(path.stat().st_mode)
            for path in root.rglob("*") if path.is_file() or not any(path.iterdir())}


def manual_pages():
    return sorted(path.name for path in SOURCE.glob("docs/man/*.[158]"))


def documents():
    """Path below share/doc/tavlo -> whether it is a program."""
    pages = ("api", "architecture", "configuration", "faults", "hooks", "install", "messages",
             "operations", "security", "tavloctl")
    return {
        **{f"docs/{page}.md": False for page in pages},
        "api/openapi.yaml": False,
        "api/refusals.yaml": False,
        "tavlo.cdx.json": False,
        "tavloctl.cdx.json": False,
        "tavlo.schema.json": False,
        "examples/tavlo.json": False,
        "examples/clients/tavlo.mjs": True,
        "examples/clients/tavlo.py": True,
        "examples/clients/tavlo.sh": True,
        "examples/hooks/10-audit": True,
        "examples/hooks/20-office-hours": True,
        "examples/hooks/30-reload-service": True,
        "examples/hooks/40-notify": True,
    }


def wait_for(condition, what):
    end = time.monotonic() + LIMIT_SECS
    while not condition():
        assert time.monotonic() < end, f"not within {LIMIT_SECS} s: {what}"
        time.sleep(0.02)


@pytest.fixture
def installation(tmp_path):
    return Installation(tmp_path / "root")
