"""What docs/architecture.md promises about who may include and use what."""

import re
from pathlib import Path

import pytest

SOURCES = Path(__file__).resolve().parents[2] / "src"

MAY_INCLUDE = {
    "app": {"app", "settings", "agent", "hooks", "util"},
    "ctl": {"ctl", "settings", "agent", "hooks", "util"},
    "settings": {"settings", "util"},
    "agent": {"agent", "hooks", "util"},
    "hooks": {"hooks", "util"},
    "util": {"util"},
}

# Beginning of a header's name -> the only files that may include it.
LIBRARIES = {
    "event2/": {"agent/", "app/start_up.cc"},
    "openssl/": {"agent/", "ctl/check_tls.cc"},
    "json-c/": {"settings/", "ctl/check_settings.cc", "ctl/findings.cc"},
    "rapidjson/": {"agent/device_list.", "ctl/log_json.cc"},
    "zlib.h": {"ctl/log_reader.cc"},
    "linux/": {"util/router_util.cc"},
}

FORK = re.compile(r"\b(?:v?fork|posix_spawnp?|system|popen)\s*\(")


def files():
    return sorted(path.relative_to(SOURCES) for path in SOURCES.rglob("*") if path.suffix in (".h", ".cc"))


def includes(path, brackets):
    opening, closing = brackets
    pattern = re.compile(rf"^#include {re.escape(opening)}([^{re.escape(closing)}]+)", re.M)
    return pattern.findall((SOURCES / path).read_text())


@pytest.mark.parametrize("path", files(), ids=str)
def test_includes_point_one_way(path):
    folders = {name.split("/")[0] for name in includes(path, '""')}
    assert folders <= MAY_INCLUDE[path.parts[0]]


@pytest.mark.parametrize("path", files(), ids=str)
def test_each_library_is_used_in_its_place_alone(path):
    for name in includes(path, "<>"):
        for start, places in LIBRARIES.items():
            if name.startswith(start):
                assert any(str(path).startswith(place) for place in places), name


def test_only_one_file_starts_processes():
    users = {str(path) for path in files() if FORK.search((SOURCES / path).read_text())}
    assert users == {"hooks/secure_exec.cc"}


def test_every_source_file_is_built():
    for path in files():
        if path.suffix == ".cc":
            assert path.name in (SOURCES / path.parent / "CMakeLists.txt").read_text(), path
