"""What was compiled for the tree is not compiled again for a copy of it below build."""

import os
import shutil
import subprocess
from pathlib import Path

import pytest

PROJECT = Path(__file__).resolve().parents[2]
# A compiler that notes each of its runs.
COMPILER = f"""#!/bin/sh
case "$*" in *" -c "*) echo "$PWD" >>"$RUNS" ;; esac
exec {shutil.which("g++")} "$@"
"""


@pytest.fixture(name="tree")
def tree_with_a_copy(tmp_path):
    (tmp_path / "tools").mkdir()
    shutil.copy(PROJECT / "tools/compile-once", tmp_path / "tools")
    (tmp_path / "programs").mkdir()
    compiler = tmp_path / "programs/g++"
    compiler.write_text(COMPILER)
    compiler.chmod(0o755)
    for place in (tmp_path, tmp_path / "build/mutate"):
        (place / "src").mkdir(parents=True)
        (place / "src/a.h").write_text("const char* Place();\n")
        (place / "src/a.cc").write_text('#include "a.h"\nconst char* Place() { return "here"; }\n')
    return tmp_path


def compile_in(tree, place, path=os.environ["PATH"]):
    """Compiles a.cc there, as CMake would; returns the object and how often the compiler ran so far."""
    runs = tree / "runs"
    runs.touch()
    source = place / "src/a.cc"
    result = place / "a.o"
    subprocess.run([tree / "tools/compile-once", tree / "programs/g++", "-g",
                    f"-ffile-prefix-map={place}=.", "-MD", "-MT", "a.o", "-MF", "a.o.d",
                    "-o", "a.o", "-c", source], cwd=place, check=True,
                   env={"PATH": path, "RUNS": str(runs), "HOME": str(tree / "home")})
    return result.read_bytes(), len(runs.read_text().splitlines())


def test_a_copy_gets_what_the_tree_has(tree):
    first, _ = compile_in(tree, tree)
    assert compile_in(tree, tree / "build/mutate") == (first, 1)
    assert not (tree / "home").exists()


@pytest.mark.parametrize("name", ["a.cc", "a.h"])
def test_what_differs_is_compiled(tree, name):
    compile_in(tree, tree)
    copy = tree / "build/mutate"
    (copy / "src" / name).write_text((copy / "src" / name).read_text() + "int another;\n")
    assert compile_in(tree, copy)[1] == 2


def test_without_ccache_the_compiler_is_run(tree):
    for name in ("as", "ld", "sh"):
        (tree / "programs" / name).symlink_to(shutil.which(name))
    for _ in range(2):
        result, runs = compile_in(tree, tree, path=str(tree / "programs"))
    assert (runs, len(result) > 0) == (2, True)
