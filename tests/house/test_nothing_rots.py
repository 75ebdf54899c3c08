"""What is not run, rots: each target, preset, program and command that a document shows is run by
`make check` or `make prove`, or stands in the table of tests/by-hand.md."""

import json
import os
import re
import subprocess
from functools import lru_cache
from pathlib import Path

import pytest

PROJECT = Path(__file__).resolve().parents[2]
BY_HAND = PROJECT / "tests" / "by-hand.md"
TARGET = re.compile(r"^([a-z0-9-]+):.*##.*\n((?:\t.*\n)*)", re.M)
PROGRAM = re.compile(r"\b(?:tools|tests/system)/[\w-]+(?:\.py|/[\w-]+(?:\.sh)?)?")
DOCUMENTS = sorted(str(path.relative_to(PROJECT))
                   for pattern in ("*.md", "docs/*.md", "tests/*/*.md", "examples/**/*.md")
                   for path in PROJECT.glob(pattern))
SHOWN = re.compile(r"^ {4}(\S.*)$|`([^`\n]+)`", re.M)
# They list or delete files, and do nothing else.
TRIVIAL = {"help", "clean"}


def read(path):
    return (PROJECT / path).read_text(encoding="utf-8")


def targets():
    return dict(TARGET.findall(read("Makefile")))


def by_hand():
    """The lines of the table by their targets."""
    return dict(re.findall(r"^\| `make ([\w-]+)` \|(.*)$", read(BY_HAND), re.M))


@lru_cache
def run_by_the_checks():
    """The commands of both checks, and the code of the tests that they run: not test_tools.py, which
    asks programs for their usage and no more."""
    steps = subprocess.run([PROJECT / "tools/check", "list"], check=True, capture_output=True,
                           text=True, env={**os.environ, "PYTHONDONTWRITEBYTECODE": "1"}).stdout
    tests = [read(path) for path in [*PROJECT.glob("tests/*/*.py"), "bench/CMakeLists.txt",
                                     *PROJECT.glob("tests/*/CMakeLists.txt")]
             if Path(path).name != "test_tools.py"]
    code = re.sub(r'""".*?"""', "", "\n".join(tests), flags=re.S).replace('" / "', "/")
    return steps + code + targets()["check"] + targets()["prove"]


def is_run(program):
    return re.search(rf"{re.escape(program)}(?![\w-])", run_by_the_checks()) is not None


def is_covered(target):
    recipe = targets()[target]
    if target in TRIVIAL or target in by_hand() or target in ("check", "prove"):
        return True
    programs = set(PROGRAM.findall(recipe)) - {"tools/dependencies", "tools/by-hand"}
    return "tools/check" not in programs and all(map(is_run, programs))


def commands(document):
    """What stands there as code."""
    return ["".join(found).strip() for found in SHOWN.findall(read(document))]


@pytest.mark.parametrize("target", targets())
def test_a_target_is_run(target):
    assert is_covered(target)


def test_the_table_has_targets_alone():
    assert set(by_hand()) <= set(targets())


@pytest.mark.parametrize("target", by_hand())
def test_a_target_that_is_run_by_hand_writes_its_line(target):
    assert targets()[target].endswith("\t$(note)\n")


@pytest.mark.parametrize("target", by_hand())
def test_the_sources_that_a_result_speaks_of_are_there(target):
    for source in re.findall(r"`([^`]+)`", by_hand()[target].split("|")[1]):
        assert (PROJECT / source).exists()


@pytest.mark.parametrize("preset", [each["name"] for each in json.loads(
    read("CMakePresets.json"))["configurePresets"] if not each.get("hidden")])
def test_a_preset_is_used(preset):
    assert (is_run(f"tools/build {preset}") or is_run(f"cmake --preset {preset}")
            or f"the preset `{preset}`" in read(BY_HAND))


@pytest.mark.parametrize("program", sorted(
    str(path.relative_to(PROJECT)) for path in (PROJECT / "tools").rglob("*")
    if path.is_file() and os.access(path, os.X_OK)))
def test_a_program_is_run(program):
    assert is_run(program) or f"`{os.path.dirname(program)}`" in read(BY_HAND)


@pytest.mark.parametrize("path", sorted((PROJECT / "bench").iterdir()), ids=lambda path: path.name)
def test_a_part_of_the_bench_is_used(path):
    if path.suffix == ".cc":
        assert path.name in read("bench/CMakeLists.txt")
    if path.suffix == ".py":
        others = "\n".join(map(read, {*PROJECT.glob("bench/*.py"), PROJECT / "tools/bench"} - {path}))
        assert re.search(rf"^ *(?:import|from) {path.stem}\b", others, re.M)


@pytest.mark.parametrize("document", DOCUMENTS)
def test_a_command_that_a_document_shows_is_run(document):
    for command in commands(document):
        words = command.partition(" #")[0].split()
        if words[:1] == ["make"] and "-C" not in words:  # that one is another tree's
            for word in words[1:]:
                name, assigned, _ = word.partition("=")
                known = re.search(rf"\b{name}\b", read("Makefile")) if assigned else is_covered(name)
                assert known, command
        for program in PROGRAM.findall(command):
            path = PROJECT / program
            assert path.exists(), command
            assert path.is_dir() or not os.access(path, os.X_OK) or is_run(program) or (
                f"`{os.path.dirname(program)}`" in read(BY_HAND)), command
        if preset := re.match(r"tools/build ([a-z0-9]+)", command):
            assert is_run(preset[0]) or f"the preset `{preset[1]}`" in read(BY_HAND), command
