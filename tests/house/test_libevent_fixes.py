"""CMake warns of a libevent that is without its security fixes, and of no other."""

import os
import subprocess
from pathlib import Path

import pytest

PROJECT = Path(__file__).resolve().parents[2]
CONFIGURATION = f"""
cmake_minimum_required(VERSION 3.25)
project(asks LANGUAGES CXX)
find_package(PkgConfig REQUIRED)
pkg_check_modules(LIBEVENT REQUIRED IMPORTED_TARGET libevent_core libevent_extra)
include({PROJECT}/cmake/libevent_fixes.cmake)
tavlo_warn_of_missing_fixes()
"""
FIXES = "CVE-2026-63379, CVE-2026-63382, CVE-2026-63385"
# Set by tools/upstream-libevent alone.
UPSTREAM = os.environ.get("TAVLO_UPSTREAM_LIBEVENT")


def configure(directory, libraries=""):
    (directory / "CMakeLists.txt").write_text(CONFIGURATION, encoding="ascii")
    environment = {name: value for name, value in os.environ.items() if name != "LD_LIBRARY_PATH"}
    if libraries:
        environment["LD_LIBRARY_PATH"] = libraries
    result = subprocess.run(["cmake", "-S", directory, "-B", directory / "build"], env=environment,
                            capture_output=True, text=True, check=True)
    return " ".join(result.stderr.split())


def test_a_library_with_the_fixes_is_not_warned_of(tmp_path):
    assert configure(tmp_path) == ""


@pytest.mark.skipif(not UPSTREAM, reason="tools/upstream-libevent check runs it")
def test_a_library_without_them_is_warned_of_again_and_again(tmp_path):
    for _ in range(2):
        assert f"libevent is without security fixes: {FIXES}." in configure(tmp_path, UPSTREAM)


def test_a_library_that_cannot_be_asked_is_warned_of(tmp_path):
    (tmp_path / "libevent_extra-2.1.so.7").write_text("no library", encoding="ascii")
    assert "some that could not be looked for" in configure(tmp_path, str(tmp_path))
