"""Follows the README as a new user would, once `make run` shows its session."""

import json
import os
import re
import subprocess

from conftest import DEMONSTRATION
from markdown import PROJECT, fenced_blocks
from support.waiting import DEFAULT_LIMIT

README = PROJECT / "README.md"


def test_a_request_of_ones_own(session):
    [(_, script)] = fenced_blocks(README, "sh")
    result = subprocess.run(["sh", "-euc", script], cwd=session, capture_output=True, text=True,
                            check=True, timeout=DEFAULT_LIMIT, env={**os.environ, "no_proxy": "*"})
    shown = re.search(r'`(\{"method".*?\})`', README.read_text(encoding="utf-8"))[1]
    assert json.loads(result.stdout) == json.loads(shown)


def test_tavloctl_finds_what_is_shown(session):
    [(command, shown)] = re.findall(r"^ {4}\$ (build/\S+tavloctl .+)\n((?: {4}.+\n)+)",
                                    README.read_text(encoding="utf-8"), re.M)
    result = subprocess.run(command.split(), cwd=session, capture_output=True, text=True, check=False,
                            timeout=DEFAULT_LIMIT)
    assert (result.returncode, result.stderr) == (1, "")
    assert result.stdout.replace(f"{session}/", "") == re.sub(r"^ {4}", "", shown, flags=re.M)


def test_the_demonstration_has_its_files_where_the_readme_looks():
    text = DEMONSTRATION.read_text(encoding="utf-8")
    for name in ("tavlo.json", "agent/mirel.crt"):
        assert f'"{name}"' in text.replace('root / "', '"')
        assert f"build/demo/{name}" in README.read_text(encoding="utf-8")
