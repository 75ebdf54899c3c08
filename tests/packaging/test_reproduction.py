"""The same source gives the same bytes, so that anyone can check what a firmware ships."""

import filecmp
import os
import re
import shutil
import subprocess

from conftest import BUILD, SOURCE


def compiler():
    cache = (BUILD / "CMakeCache.txt").read_text()
    return re.search(r"^CMAKE_CXX_COMPILER:\w+=(.+)$", cache, re.M)[1]


def make_packages(directory):
    subprocess.run([SOURCE / "tools/deb"], check=True, capture_output=True,
                   env={**os.environ, "BUILD": str(BUILD), "OUTPUT": str(directory)})
    return sorted(path.name for path in directory.glob("*.deb"))


def test_a_build_in_another_place_has_the_same_bytes(tmp_path):
    source, build = tmp_path / "another tree", tmp_path / "and its build"
    shutil.copytree(SOURCE, source, ignore=shutil.ignore_patterns("build", ".*"))
    subprocess.run(["cmake", "-S", source, "-B", build, "-G", "Ninja", "-DBUILD_TESTING=OFF",
                    f"-DCMAKE_CXX_COMPILER={compiler()}",
                    # What was kept of the first build would be the same in any case.
                    "-DCMAKE_CXX_COMPILER_LAUNCHER="], check=True, capture_output=True)
    subprocess.run(["cmake", "--build", build], check=True, capture_output=True)
    for name in ("tavlo", "tavlo.debug", "tavlo.cdx.json", "tavloctl", "tavloctl.debug",
                 "tavloctl.cdx.json"):
        assert filecmp.cmp(build / name, BUILD / name, shallow=False), name


def test_packages_that_are_made_again_have_the_same_bytes(tmp_path):
    first, second = tmp_path / "first", tmp_path / "second"
    names = make_packages(first)
    assert len(names) == 2
    assert make_packages(second) == names
    for name in names:
        assert filecmp.cmp(first / name, second / name, shallow=False), name
