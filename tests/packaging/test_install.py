"""`make install` and `make uninstall`: every file, where it goes, and what is left afterwards."""

import filecmp
import json
import os
import re
import shutil
import subprocess
from pathlib import Path

import pytest
from conftest import (BUILD, SOURCE, assert_daemon_reads_as_written, documents, listing,
                      manual_pages)

PROGRAM = "-rwxr-xr-x"
FILE = "-rw-r--r--"
DIRECTORY = "drwxr-xr-x"


def expected(prefix, sysconfdir):
    pages = {f"{prefix}/share/man/man{name[-1]}/{name}": FILE for name in manual_pages()}
    shared = {f"{prefix}/share/doc/tavlo/{path}": PROGRAM if is_program else FILE
              for path, is_program in documents().items()}
    return pages | shared | {
        f"{prefix}/sbin/tavlo": PROGRAM,
        f"{prefix}/sbin/tavloctl": PROGRAM,
        f"{prefix}/bin/decode-backtrace": PROGRAM,
        f"{prefix}/lib/systemd/system/tavlo.path": FILE,
        f"{prefix}/lib/systemd/system/tavlo.service": FILE,
        f"{prefix}/share/bash-completion/completions/tavlo": FILE,
        f"{prefix}/share/bash-completion/completions/tavloctl": FILE,
        f"{sysconfdir}/logrotate.d/tavlo": FILE,
        f"{sysconfdir}/tavlo/tavlo.json": FILE,
        f"{sysconfdir}/tavlo/agent": DIRECTORY,
        f"{sysconfdir}/tavlo/hooks/agent": DIRECTORY,
    }


@pytest.mark.parametrize("variables, prefix, sysconfdir", [
    ({}, "/usr/local", "/usr/local/etc"),
    ({"PREFIX": "/usr"}, "/usr", "/etc"),
    ({"PREFIX": "/opt/tavlo"}, "/opt/tavlo", "/opt/tavlo/etc"),
    ({"PREFIX": "/opt/tavlo", "SYSCONFDIR": "/etc"}, "/opt/tavlo", "/etc"),
], ids=["default", "usr", "opt", "sysconfdir"])
def test_every_file_goes_where_it_belongs(installation, variables, prefix, sysconfdir):
    installation.run(**variables)
    assert listing(installation.root) == expected(prefix, sysconfdir)
    unit = (installation.root / f"{prefix[1:]}/lib/systemd/system/tavlo.service").read_text()
    assert f"ExecStart={prefix}/sbin/tavlo -s -c {sysconfdir}/tavlo/tavlo.json " in unit


def test_a_prefix_alone_holds_everything(installation, tmp_path):
    prefix = tmp_path / "prefix"
    installation.run(PREFIX=str(prefix), DESTDIR="")
    assert listing(prefix) == expected("", "/etc")
    assert list(tmp_path.iterdir()) == [prefix]


def test_the_pages_refer_to_what_is_installed_with_them(installation):
    installation.run()
    pages = list(installation.root.rglob("*.md"))
    links = [page.parent / link for page in pages
             for link in re.findall(r"\]\(([^)#:]+)(?:#[^)]*)?\)", page.read_text())]
    assert len(links) > 20
    assert [str(link) for link in links if not link.exists()] == []


@pytest.mark.parametrize("name", ["tavlo", "tavloctl"])
def test_the_program_is_the_one_that_the_debug_file_fits(installation, name):
    installation.run(PREFIX="/usr")
    assert filecmp.cmp(installation.root / "usr/sbin" / name, BUILD / name, shallow=False)


def test_who_calls_cmake_without_a_preset_builds_what_ships(tmp_path):
    page = (SOURCE / "docs/install.md").read_text()
    options = re.search(r"^ {4}cmake -S \. -B \S+ (.+?) &&", page, re.M)[1].split()
    subprocess.run(["cmake", "-S", SOURCE, "-B", tmp_path, *options], check=True,
                   capture_output=True)
    cache = (tmp_path / "CMakeCache.txt").read_text()
    assert re.search(r"^CMAKE_BUILD_TYPE:STRING=Release$", cache, re.M)
    assert re.search(r"^BUILD_TESTING:BOOL=OFF$", cache, re.M)


def test_the_daemon_reads_the_configuration_as_it_is_written(installation):
    installation.run(PREFIX="/opt")
    path = installation.root / "opt/etc/tavlo/tavlo.json"
    assert json.loads(path.read_text())["internalHooksDirectory"] == "/opt/etc/tavlo/hooks"
    assert_daemon_reads_as_written(path)


def test_an_edited_configuration_survives_both(installation):
    installation.run()
    etc = installation.root / "usr/local/etc"
    edited = [etc / "tavlo/tavlo.json", etc / "logrotate.d/tavlo"]
    certificate = etc / "tavlo/agent/mirel.crt"
    for path in (*edited, certificate):
        path.write_text("edited")
    installation.run()
    installation.run("remove")
    left = {path for path in installation.root.rglob("*") if path.is_file()}
    assert left == {*edited, certificate}
    assert all(path.read_text() == "edited" for path in (*edited, certificate))


def test_nothing_is_left_after_it_was_taken_away(installation):
    other = installation.root / "usr/local/sbin/other"
    other.parent.mkdir(parents=True)
    other.touch()
    installation.run()
    installation.run("remove")
    left = list(installation.root.rglob("*"))
    assert [path for path in left if not path.is_dir()] == [other]
    assert not [path for path in left if "tavlo" in path.name]


@pytest.mark.parametrize("target, tool", [
    ("install", "install"), ("uninstall", "install remove")])
def test_make_hands_its_variables_over(tmp_path, target, tool):
    shutil.copy(SOURCE / "Makefile", tmp_path)
    (tmp_path / "tools").mkdir()
    for name in ("dependencies", "build", "install"):
        path = tmp_path / "tools" / name
        path.write_text('#!/bin/sh\necho "$(basename "$0") $*:$DESTDIR:$PREFIX:$SYSCONFDIR"\n')
        path.chmod(0o755)
    said = subprocess.run(["make", "-s", target, "DESTDIR=/d", "PREFIX=/p", "SYSCONFDIR=/s"],
                          cwd=tmp_path, check=True, capture_output=True, text=True).stdout
    assert said.splitlines()[-1].replace(" :", ":") == f"{tool}:/d:/p:/s"


@pytest.mark.parametrize("variables", [{"PREFIX": "usr"}, {"SYSCONFDIR": "etc"}], ids=str)
def test_what_is_no_absolute_path_is_refused(installation, variables):
    with pytest.raises(subprocess.CalledProcessError) as refused:
        installation.run(**variables)
    assert refused.value.returncode == 2
    assert "must begin with '/'" in refused.value.stderr
    assert not installation.root.exists()


def test_nothing_is_left_when_it_is_ended_while_it_takes_away(installation, tmp_path):
    installation.run()
    before = listing(installation.root)
    programs, scratch = tmp_path / "programs", tmp_path / "scratch"
    programs.mkdir()
    scratch.mkdir()
    cmake = programs / "cmake"
    cmake.write_text('#!/bin/sh\nls "$TMPDIR" >>"$TMPDIR/../seen"\nkill -TERM "$PPID"\n')
    cmake.chmod(0o755)
    with pytest.raises(subprocess.CalledProcessError):
        installation.run("remove", TMPDIR=str(scratch), PATH=f"{programs}:{os.environ['PATH']}")
    assert (tmp_path / "seen").read_text().strip()
    assert list(scratch.iterdir()) == []
    assert listing(installation.root) == before


def test_rotating_the_log_has_the_daemon_open_it_again(tmp_path):
    """With systemd through its unit, else by the program's name."""
    record = tmp_path / "record"
    for name in ("systemctl", "pkill"):
        (tmp_path / name).write_text(f'#!/bin/sh\necho "{name} $*" >>{record}\n')
        (tmp_path / name).chmod(0o755)
    snippet = (SOURCE / "packaging/tavlo.logrotate").read_text()
    script = re.search(r"\tpostrotate\n(.*)\tendscript\n", snippet, re.DOTALL)[1]
    subprocess.run(["sh", "-ec", script], check=True, env={"PATH": f"{tmp_path}:/usr/bin:/bin"})
    by_systemd = "systemctl kill --kill-who=main --signal=HUP tavlo.service\n"
    assert record.read_text() == (by_systemd if Path("/run/systemd/system").is_dir()
                                  else "pkill -HUP -x tavlo\n")
