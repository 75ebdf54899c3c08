"""Asks bash what it would offer."""

import json
import re
import subprocess

import pytest

from markdown import PROJECT

SCRIPT = PROJECT / "examples" / "completion" / "tavlo.bash"
KEYS = [key for key in json.loads((PROJECT / "tavlo.schema.json").read_text(encoding="utf-8"))[
    "properties"] if key != "$schema"]

# What bash does when the tab key is pressed behind the last word; compopt works only there.
PRESS_TAB = """
compopt() { :; }
source "$0"
COMP_WORDS=("$@") COMP_CWORD=$(($# - 1))
_tavlo
((${#COMPREPLY[@]})) && printf '%s\\n' "${COMPREPLY[@]}" || true
"""


def offered(*words, cwd=None):
    result = subprocess.run(["bash", "-uec", PRESS_TAB, SCRIPT, "tavlo", *words], cwd=cwd,
                            capture_output=True, text=True, check=True, timeout=60)
    assert result.stderr == ""
    return result.stdout.splitlines()


def test_all_options_are_offered_and_no_others():
    source = (PROJECT / "src" / "app" / "command_line.cc").read_text(encoding="utf-8")
    letters = set(re.search(r'kShortOptions = "([^"]+)"', source)[1]) - {":"}
    names = re.findall(r'^ {4}\{"([\w-]+)"', source, re.M)
    assert sorted(offered("-")) == sorted([f"-{each}" for each in letters]
                                          + [f"--{each}" for each in names])
    assert offered("-d", "--p") == ["--print-config-value"]


@pytest.mark.parametrize("option", ["-p", "--print-config-value"])
def test_all_keys_are_offered(option):
    assert offered("-c", "file", option, "") == KEYS
    assert offered(option, "root") == ["rootPrefix"]


@pytest.mark.parametrize("option", ["-c", "-f"])
def test_files_are_offered(option, tmp_path):
    (tmp_path / "a file").touch()
    (tmp_path / "another").touch()
    assert sorted(offered(option, "a", cwd=tmp_path)) == ["a file", "another"]
    assert offered(option, "x", cwd=tmp_path) == []


def test_it_is_completion_of_tavlo():
    result = subprocess.run(["bash", "-c", 'source "$0" && complete -p tavlo', SCRIPT],
                            capture_output=True, text=True, check=True, timeout=60)
    assert result.stdout == "complete -F _tavlo tavlo\n"
