"""What tavloctl's command line does, whatever the command."""

import re
import subprocess
from pathlib import Path

import pytest

from support.tavloctl import BINARY, PROGRAM, run_tavloctl

PROJECT = Path(__file__).resolve().parents[2]
# Each has a line in the table of the source.
COMMANDS = re.findall(r"^ {4}&k(\w+),$", (PROJECT / "src/ctl/command.cc").read_text(), re.M)


def names():
    return [name.lower() for name in COMMANDS]


def test_help_lists_every_command_in_a_line():
    result = run_tavloctl("--help")
    assert (result.returncode, result.stderr) == (0, "")
    assert result.stdout.startswith("Usage: tavloctl COMMAND")
    listed = re.findall(r"^  (\w+) +\S.+$", result.stdout, re.M)
    assert listed and listed == names()
    assert all(len(line) <= 80 for line in result.stdout.splitlines())
    assert run_tavloctl("-h").stdout == result.stdout


@pytest.mark.parametrize("name", names())
def test_a_command_tells_how_it_is_used(name):
    result = run_tavloctl(name, "--help")
    assert (result.returncode, result.stderr) == (0, "")
    assert result.stdout.startswith(f"Usage: tavloctl {name} ")
    assert result.stdout.endswith("\n") and "Exit status: " in result.stdout


def test_version_tells_the_version_and_the_build_id():
    version = re.search(r"project\(tavlo VERSION (\S+)", (PROJECT / "CMakeLists.txt").read_text())[1]
    notes = subprocess.run(["readelf", "--notes", BINARY], check=True, capture_output=True,
                           text=True).stdout
    build_id = re.search(r"Build ID: ([0-9a-f]{16,})", notes)[1]
    result = run_tavloctl("--version")
    assert (result.returncode, result.stderr) == (0, "")
    assert result.stdout == f"tavloctl {version}\nBuild ID: {build_id}\n"


def test_without_a_command_it_tells_how_it_is_used_and_fails():
    result = run_tavloctl()
    assert (result.returncode, result.stdout) == (2, "")
    assert result.stderr == run_tavloctl("--help").stdout


@pytest.mark.parametrize("name", ["cheque", "", "--unknown", "Check"])
def test_a_command_that_there_is_not_fails(name):
    result = run_tavloctl(name)
    assert (result.returncode, result.stdout) == (2, "")
    assert result.stderr == f"tavloctl: there is no command '{name}'; see tavloctl --help\n"


@pytest.mark.parametrize("name", names())
def test_a_wrong_option_fails_and_names_the_command(name):
    result = run_tavloctl(name, "--unheard-of")
    assert (result.returncode, result.stdout) == (2, "")
    assert result.stderr.startswith(f"tavloctl {name}: ")


@pytest.mark.parametrize("arguments", [["--help"], ["--version"], ["check", "--help"]])
def test_what_cannot_be_written_fails(arguments):
    with open("/dev/full", "w", encoding="ascii") as full:
        result = subprocess.run([*PROGRAM, *arguments], stdout=full, check=False)
    assert result.returncode == 2
