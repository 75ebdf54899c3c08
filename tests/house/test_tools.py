"""How the tools behave that everybody starts with."""

import fcntl
import json
import os
import pty
import shutil
import subprocess
from pathlib import Path

import pytest

PROJECT = Path(__file__).resolve().parents[2]
LIMIT_SECS = 30


@pytest.fixture
def tree(tmp_path):
    """As much of a tree as tools/build looks at, and a CMake that only says what it was asked."""
    (tmp_path / "tools").mkdir()
    shutil.copy(PROJECT / "tools" / "build", tmp_path / "tools")
    (tmp_path / "CMakePresets.json").write_text("{}")
    (tmp_path / "programs").mkdir()
    cmake = tmp_path / "programs" / "cmake"
    cmake.write_text('#!/bin/sh\necho "$*" >>asked\n')
    cmake.chmod(0o755)
    return tmp_path


def start_build(tree, *arguments, stdout=subprocess.PIPE):
    path = f"{tree / 'programs'}:{os.environ['PATH']}"
    return subprocess.Popen([tree / "tools" / "build", *arguments], stdout=stdout,
                            stderr=subprocess.PIPE, text=True, env={**os.environ, "PATH": path})


def asked(tree):
    path = tree / "asked"
    return path.read_text().splitlines() if path.exists() else []


def test_a_build_waits_for_another_one_in_the_same_tree(tree):
    with open(tree / "CMakePresets.json", encoding="ascii") as other:
        fcntl.flock(other, fcntl.LOCK_EX)
        process = start_build(tree, "release")
        assert process.stdout.readline() == "Another build is at work in this tree; waiting for it.\n"
        assert asked(tree) == []
    output = process.communicate(timeout=LIMIT_SECS)
    assert (process.returncode, *output) == (0, "", "")
    assert [line.split()[:3] for line in asked(tree)] == [
        ["--preset", "release", "--log-level=WARNING"], ["--build", "--preset", "release"]]


@pytest.mark.parametrize("on_terminal, ending", [(True, "--"), (False, "-- --quiet")])
def test_a_build_shows_how_far_it_is_on_a_terminal_alone(tree, on_terminal, ending):
    master, slave = pty.openpty()
    with open(master, "rb"), open(slave, "wb") as terminal:
        output = terminal if on_terminal else subprocess.DEVNULL
        start_build(tree, "release", stdout=output).communicate(timeout=LIMIT_SECS)
    assert asked(tree)[-1] == f"--build --preset release {ending}"


@pytest.mark.parametrize("arguments", [(), ("--help",)], ids=len)
def test_a_build_of_no_preset_shows_how_it_is_used(tree, arguments):
    output, errors = start_build(tree, *arguments).communicate(timeout=LIMIT_SECS)
    assert (output, errors.startswith("usage: tools/build PRESET")) == ("", True)
    assert asked(tree) == []


def test_a_build_may_be_of_some_targets_alone(tree):
    start_build(tree, "release", "one", "another").communicate(timeout=LIMIT_SECS)
    assert asked(tree)[-1] == "--build --preset release --target one another -- --quiet"


PRESETS = json.loads((PROJECT / "CMakePresets.json").read_text(encoding="utf-8"))


@pytest.mark.parametrize("preset", [each["name"] for each in PRESETS["buildPresets"]])
def test_a_name_that_no_test_has_is_a_failure(tmp_path, preset):
    shutil.copy(PROJECT / "CMakePresets.json", tmp_path)
    build = tmp_path / "build" / preset
    build.mkdir(parents=True)
    (build / "CTestTestfile.cmake").write_text("add_test(known true)\n", encoding="ascii")

    def status(name):
        return subprocess.run(["ctest", "--preset", preset, "-R", name], cwd=tmp_path, check=False,
                              capture_output=True, timeout=LIMIT_SECS).returncode

    assert status("known") == 0
    assert status("unknown-name") != 0


@pytest.mark.parametrize("name", ["deb", "debian-sysroot", "format", "install"])
def test_a_script_that_takes_no_options_starts_nothing_when_it_is_given_one(tmp_path, name):
    (tmp_path / "tools").mkdir()
    tool = shutil.copy(PROJECT / "tools" / name, tmp_path / "tools")
    result = subprocess.run([tool, "--help"], capture_output=True, text=True, check=False,
                            timeout=LIMIT_SECS)
    assert (result.returncode, result.stdout) == (2, "")
    assert result.stderr.startswith("usage: ") and f"tools/{name}" in result.stderr
    assert [path.name for path in tmp_path.iterdir()] == ["tools"]


def test_a_build_without_its_tools_names_their_packages(tree):
    path = tree / "programs"
    (path / "cmake").unlink()
    for name in ("dirname", "flock", "mkdir"):
        (path / name).symlink_to(shutil.which(name))
    result = subprocess.run([tree / "tools" / "build", "release"], capture_output=True, text=True,
                            check=False, env={"PATH": str(path)}, timeout=LIMIT_SECS)
    assert result.returncode == 1
    assert result.stderr.splitlines()[0].endswith(": cmake ninja-build pkg-config")


REPORT = """<testsuite>
<testcase name="unit/a" status="run"><system-out/></testcase>
<testcase name="unit/b" status="notrun"><skipped/><system-out>b_test.cc:7: Skipped
only root can do that
</system-out></testcase>
<testcase name="system/c" status="run"><system-out>.ss
SKIPPED [2] test_c.py:5: not under an emulator
1 passed, 2 skipped in 0.1s
</system-out></testcase>
<testcase name="system/d" status="fail"><failure/><system-out>what went wrong</system-out></testcase>
</testsuite>
"""


def test_a_check_counts_the_tests_and_tells_why_some_were_skipped(tmp_path):
    programs = {"tools/debian-sysroot": "true", "tools/build": "true", "tools/target": "true",
                "programs/ctest": 'cp report build/aarch64/tests.xml; exit 8'}
    for name, script in programs.items():
        path = tmp_path / name
        path.parent.mkdir(exist_ok=True)
        path.write_text(f"#!/bin/sh\n{script}\n")
        path.chmod(0o755)
    for name in ("check", "running.py"):
        shutil.copy(PROJECT / "tools" / name, tmp_path / "tools")
    (tmp_path / "build" / "aarch64").mkdir(parents=True)
    (tmp_path / "report").write_text(REPORT)
    result = subprocess.run(
        [tmp_path / "tools" / "check", "aarch64"], capture_output=True, text=True, check=False,
        timeout=LIMIT_SECS, env={**os.environ, "PATH": f"{tmp_path}/programs:{os.environ['PATH']}"})
    assert result.returncode == 1
    assert "what went wrong" in result.stdout.splitlines()
    assert result.stdout.splitlines()[-4:] == [
        "skipped: system/c: not under an emulator",
        "skipped: unit/b: only root can do that",
        "failed: aarch64 tests: system/d",
        "5 passed, 1 failed, 3 skipped"]


@pytest.mark.parametrize("argument, status", [("--help", 0), ("--unknown", 2)])
@pytest.mark.parametrize("name", [
    "tests/system/soak.py", "tools/bench", "tools/by-hand", "tools/check", "tools/demonstration",
    "tools/fuzz", "tools/mutate", "tools/target", "tools/test"])
def test_a_tool_tells_how_it_is_used_and_starts_nothing(name, argument, status):
    result = subprocess.run([PROJECT / name, argument], capture_output=True, text=True,
                            check=False, timeout=LIMIT_SECS,
                            env={**os.environ, "PYTHONDONTWRITEBYTECODE": "1"})
    assert result.returncode == status
    assert (result.stdout + result.stderr).startswith(f"usage: {name}")


@pytest.mark.parametrize("name, maker", [
    ("aarch64", "tools/debian-sysroot aarch64"), ("armhf", "tools/toolchain/all armhf"),
    ("musl", "tools/toolchain/all musl"), ("uclibc", "tools/toolchain/all uclibc")])
def test_a_cross_build_without_its_libraries_says_what_makes_them(tmp_path, name, maker):
    toolchain = shutil.copytree(PROJECT / "cmake", tmp_path / "cmake") / f"{name}.cmake"
    (tmp_path / "CMakeLists.txt").write_text(
        "cmake_minimum_required(VERSION 3.25)\nproject(any LANGUAGES NONE)\n")
    result = subprocess.run(
        ["cmake", "-S", tmp_path, "-B", tmp_path / "build", f"-DCMAKE_TOOLCHAIN_FILE={toolchain}"],
        capture_output=True, text=True, check=False, timeout=LIMIT_SECS)
    assert result.returncode == 1
    assert f"{maker} makes it" in " ".join(result.stderr.split())
