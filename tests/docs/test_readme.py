"""Follows the README as a new user would, once `make run` shows its session."""

import json
import os
import re
import subprocess
from contextlib import ExitStack
from pathlib import Path

from markdown import PROJECT, fenced_blocks
from sdk_rest_host import SdkRestHost
from support.daemon import BINARY, Daemon
from support.scratch_root import ScratchRoot
from support.waiting import DEFAULT_LIMIT

README = PROJECT / "README.md"
DEMONSTRATION = PROJECT / "tools" / "demonstration"


def test_a_request_of_ones_own(tmp_path):
    # The same files in the same places as the demonstration has them.
    key = re.search(r'^PAIRING_KEY = "(\w+)"$', DEMONSTRATION.read_text(encoding="utf-8"), re.M)[1]
    (tmp_path / "build" / "release").mkdir(parents=True)
    (tmp_path / "build" / "release" / "tavlo").symlink_to(Path(BINARY).resolve())
    (tmp_path / "build" / "demo").mkdir()
    root = ScratchRoot(tmp_path / "build" / "demo")
    root.write_pairing_key(key)
    [(_, script)] = fenced_blocks(README, "sh")
    daemon = Daemon(root)
    with ExitStack() as stack:
        stack.enter_context(SdkRestHost(root.destination_port))
        stack.callback(daemon.kill)
        daemon.start()
        result = subprocess.run(["sh", "-euc", script], cwd=tmp_path, capture_output=True,
                                text=True, check=True, timeout=DEFAULT_LIMIT,
                                env={**os.environ, "no_proxy": "*"})
        daemon.stop()
    shown = re.search(r'`(\{"method".*?\})`', README.read_text(encoding="utf-8"))[1]
    assert json.loads(result.stdout) == json.loads(shown)


def test_the_demonstration_has_its_files_where_the_readme_looks():
    text = DEMONSTRATION.read_text(encoding="utf-8")
    for name in ("tavlo.json", "agent/mirel.crt"):
        assert f'"{name}"' in text.replace('root / "', '"')
        assert f"build/demo/{name}" in README.read_text(encoding="utf-8")
