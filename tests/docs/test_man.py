"""Looks at the manual pages with the tools that show them, and holds them against the settings and
the options."""

import json
import os
import re
import subprocess

import pytest

from markdown import PROJECT

PAGES = sorted((PROJECT / "docs" / "man").iterdir())
DECODE_BACKTRACE = PROJECT / "docs" / "man" / "decode-backtrace.1"
TAVLO = PROJECT / "docs" / "man" / "tavlo.8"
TAVLO_JSON = PROJECT / "docs" / "man" / "tavlo.json.5"
TAVLOCTL = PROJECT / "docs" / "man" / "tavloctl.8"


def text(path):
    return path.read_text(encoding="utf-8")


def run(*command):
    return subprocess.run(command, capture_output=True, text=True, check=False, timeout=60,
                          env={**os.environ, "LC_ALL": "C.UTF-8", "MANWIDTH": "80"})


def test_there_is_one_for_each_program_and_for_the_configuration():
    assert PAGES == [DECODE_BACKTRACE, TAVLO, TAVLO_JSON, TAVLOCTL]


@pytest.mark.parametrize("page", PAGES, ids=lambda page: page.name)
def test_mandoc_has_nothing_against_it(page):
    result = run("mandoc", "-T", "lint", "-W", "warning", page)
    assert (result.returncode, result.stdout, result.stderr) == (0, "", "")


@pytest.mark.parametrize("page", PAGES, ids=lambda page: page.name)
def test_man_shows_it_without_a_warning(page):
    result = run("man", "--warnings", "--encoding=UTF-8", "--local-file", page)
    assert (result.returncode, result.stderr) == (0, "")
    name, section = page.name.rsplit(".", 1)
    assert result.stdout.startswith(f"{name.upper()}({section})")
    assert "SEE ALSO" in result.stdout


@pytest.mark.parametrize("page", PAGES, ids=lambda page: page.name)
def test_it_has_the_version_of_the_build(page):
    version = re.search(r"project\(tavlo VERSION (\S+)", text(PROJECT / "CMakeLists.txt"))[1]
    assert f"\n.Os tavlo {version}\n" in text(page)


def test_the_options_are_those_of_the_program():
    source = text(PROJECT / "src" / "app" / "command_line.cc")
    letters = set(re.search(r'kShortOptions = "([^"]+)"', source)[1]) - {":"}
    names = set(re.findall(r'^ {4}\{"([\w-]+)"', source, re.M))
    entries = re.findall(r"^\.It (Fl .*)$", text(TAVLO), re.M)
    documented = {word for entry in entries for word in re.findall(r"\bFl (\w)(?= |$)", entry)}
    assert documented == letters
    assert set(re.findall(r"Fl Fl ([\w-]+)", "\n".join(entries))) == names


def test_the_options_of_decode_backtrace_are_those_of_the_program():
    source = text(PROJECT / "tools" / "decode-backtrace")
    options = re.findall(r'add_argument\("--([\w-]+)"', source)
    synopsis, described = text(DECODE_BACKTRACE).split(".Sh DESCRIPTION\n")
    assert re.findall(r"^\.Op Fl Fl ([\w-]+)", synopsis, re.M) == options
    assert re.findall(r"^\.It Fl Fl ([\w-]+)", described, re.M) == options


def test_the_synopsis_has_every_option():
    synopsis = text(TAVLO).split(".Sh SYNOPSIS\n")[1].split(".Sh ")[0]
    entries = re.findall(r"^\.It Fl (\w)", text(TAVLO), re.M)
    shown = "".join(re.findall(r"\bFl (\w+)\b", synopsis))
    assert entries and set(entries) <= set(shown)


def test_the_keys_are_those_of_the_schema_with_type_range_and_default():
    def entry(key, value):
        default = value["default"] if value["default"] != "" else "empty"
        kind = value["type"]
        if kind == "integer":
            kind = f"number from {value['minimum']} to {value['maximum']}"
        return f".It Va {key} Pq {kind}, {default}"

    properties = json.loads(text(PROJECT / "tavlo.schema.json"))["properties"]
    expected = [entry(key, value) for key, value in properties.items() if key != "$schema"]
    assert re.findall(r"^\.It Va .*$", text(TAVLO_JSON), re.M) == expected


def test_the_default_paths_are_those_of_the_settings():
    defaults = {str(value.get("default")) for value in
                json.loads(text(PROJECT / "tavlo.schema.json"))["properties"].values()}
    paths = re.findall(r"^\.It Pa (\S+)", text(TAVLO), re.M)
    assert paths
    for path in paths:
        assert any(path.rstrip("/") == each or path.startswith(each + "/")
                   for each in defaults if each.startswith("/")), path
