"""Asks bash what it would offer."""

import json
import re
import subprocess

import pytest

from markdown import PROJECT
from support.tavloctl import run_tavloctl

SCRIPT = PROJECT / "examples" / "completion" / "tavlo.bash"
KEYS = [key for key in json.loads((PROJECT / "tavlo.schema.json").read_text(encoding="utf-8"))[
    "properties"] if key != "$schema"]

# What bash does when the tab key is pressed behind the last word; compopt works only there.
PRESS_TAB = """
compopt() { :; }
source "$0"
COMP_WORDS=("$@") COMP_CWORD=$(($# - 1))
"_$1"
((${#COMPREPLY[@]})) && printf '%s\\n' "${COMPREPLY[@]}" || true
"""


def offered(*words, cwd=None, program="tavlo"):
    script = SCRIPT.with_name(f"{program}.bash")
    result = subprocess.run(["bash", "-uec", PRESS_TAB, script, program, *words], cwd=cwd,
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


@pytest.mark.parametrize("program", ["tavlo", "tavloctl"])
def test_it_is_completion_of(program):
    script = SCRIPT.with_name(f"{program}.bash")
    result = subprocess.run(["bash", "-c", f'source "$0" && complete -p {program}', script],
                            capture_output=True, text=True, check=True, timeout=60)
    assert result.stdout == f"complete -F _{program} {program}\n"


def commands_of_tavloctl():
    return re.findall(r"^  (\w+) ", run_tavloctl("--help").stdout, re.M)


def test_all_commands_of_tavloctl_are_offered():
    assert offered("", program="tavloctl") == [*commands_of_tavloctl(), "--help", "--version"]


@pytest.mark.parametrize("command", commands_of_tavloctl())
def test_all_options_of_its_commands_are_offered_and_no_others(command):
    usage = run_tavloctl(command, "--help").stdout
    options = {*re.findall(r"(?<![\w-])(--?[a-z]+)", usage), "--help"}
    shown = offered(command, "-", program="tavloctl")
    assert sorted(shown) == sorted(options)


def test_all_events_are_offered():
    usage = run_tavloctl("hook", "--help").stdout
    events = re.findall(r"^  ([a-z_]+) ", usage, re.M)
    assert len(events) == 7
    assert [word for word in offered("hook", "", program="tavloctl") if word[0] != "-"] == events


@pytest.mark.parametrize("words", [["check", "-c"], ["check", "-f"], ["hook", "-c"], ["hook", "--data"],
                                   ["log"], ["log", "--plot"], ["log", "a file"]])
def test_files_are_offered_to_tavloctl(words, tmp_path):
    (tmp_path / "a file").touch()
    assert offered(*words, "a", cwd=tmp_path, program="tavloctl") == ["a file"]
