"""C programs that tests need, built when they are needed: the sources lie beside the tests."""

import shutil
import subprocess
from contextlib import contextmanager
from pathlib import Path

import pytest

from support.daemon import DIE_WITH_PARENT

SOURCES = Path(__file__).resolve().parents[1]

needs_cc = pytest.mark.skipif(shutil.which("cc") is None, reason="needs cc, for a program of its own")


def compile_program(name, directory, *libraries):
    program = directory / name
    subprocess.run(["cc", "-O2", "-o", program, SOURCES / f"{name}.c", *libraries], check=True)
    return program


def compile_preload(name, directory):
    """A library that is put before the others with LD_PRELOAD."""
    library = directory / f"{name}.so"
    subprocess.run(["cc", "-O2", "-shared", "-fPIC", "-o", library, SOURCES / f"{name}.c"],
                   check=True)
    return library


@contextmanager
def connect_flood(directory, port, source, kept=1000, rate=0, text="", processes=1):
    """One device that connects as fast as it can, or `rate` times a second, and keeps the latest
    `kept` connections."""
    program = directory / "connect_flood"
    if not program.exists():
        compile_program("connect_flood", directory)
    command = [*DIE_WITH_PARENT, program, source, str(port), str(kept), str(rate), text]
    floods = [subprocess.Popen(command) for _ in range(processes)]
    try:
        yield
        assert [flood.poll() for flood in floods] == [None] * processes
    finally:
        for flood in floods:
            flood.kill()
            flood.wait()
