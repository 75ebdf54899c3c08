"""Follows the README as a new user would, once `make run` shows its session."""

import json
import os
import re
import subprocess

import pytest

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


SHOWN = re.findall(r"^ {4}\$ (build/\S+tavloctl (\w+).*)\n((?: {4}.+\n)+)",
                   README.read_text(encoding="utf-8"), re.M)


def without_times(text):
    return re.sub(r"\b\d+ ms$", "N ms", text, flags=re.M)


def test_each_command_of_tavloctl_is_shown_once():
    assert [name for _, name, _ in SHOWN] == ["check", "hook"]


@pytest.mark.parametrize("command, name, output", SHOWN, ids=[name for _, name, _ in SHOWN])
def test_tavloctl_prints_what_is_shown(session, command, name, output):
    result = subprocess.run(command.split(), cwd=session, capture_output=True, text=True, check=False,
                            timeout=DEFAULT_LIMIT)
    assert (result.returncode, result.stderr) == ({"check": 1, "hook": 3}[name], "")
    assert (without_times(result.stdout.replace(f"{session}/", ""))
            == without_times(re.sub(r"^ {4}", "", output, flags=re.M)))


def test_the_demonstration_has_its_files_where_the_readme_looks():
    text = DEMONSTRATION.read_text(encoding="utf-8")
    for name in ("tavlo.json", "agent/mirel.crt"):
        assert f'"{name}"' in text.replace('root / "', '"')
        assert f"build/demo/{name}" in README.read_text(encoding="utf-8")
