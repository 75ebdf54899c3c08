"""What editors and development containers read here names things that are there, and works."""

import json
import re
import subprocess
from pathlib import Path

import pytest

PROJECT = Path(__file__).resolve().parents[2]
LIMIT_SECS = 60


def read(path):
    return json.loads((PROJECT / path).read_text(encoding="utf-8"))


def tasks():
    return {task["label"]: task["command"] for task in read(".vscode/tasks.json")["tasks"]}


@pytest.mark.parametrize("command", tasks().values())
def test_a_task_is_a_target_or_a_build(command):
    tool, what = command.split()
    if tool == "make":
        assert re.search(rf"^{what}:", (PROJECT / "Makefile").read_text(), re.M)
    else:
        assert tool == "tools/build"
        assert what in {preset["name"] for preset in read("CMakePresets.json")["configurePresets"]}


def test_what_is_debugged_is_what_was_built_for_it():
    for launch in read(".vscode/launch.json")["configurations"]:
        preset = tasks()[launch["preLaunchTask"]].removeprefix("tools/build ")
        assert launch["program"] == f"${{workspaceFolder}}/build/{preset}/tavlo"


def test_the_container_has_the_extensions_that_are_recommended():
    container = read(".devcontainer/devcontainer.json")
    assert (container["customizations"]["vscode"]["extensions"]
            == read(".vscode/extensions.json")["recommendations"])


def test_a_configuration_is_checked_against_the_schema():
    [schema] = read(".vscode/settings.json")["json.schemas"]
    assert (PROJECT / schema["url"]).is_file()
    names = {path.name for path in (PROJECT / "examples").glob("tavlo*.json")}
    assert names and names <= set(schema["fileMatch"])


def test_clangd_understands_the_sources():
    if not (PROJECT / "build/release/compile_commands.json").exists():
        pytest.skip("the release build, whose flags clangd takes, has not been configured")
    result = subprocess.run(["clangd", "--check=src/app/main.cc"], cwd=PROJECT, check=False,
                            capture_output=True, text=True, timeout=LIMIT_SECS)
    assert "All checks completed, 0 errors" in result.stderr
