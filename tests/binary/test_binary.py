"""The shipped binary: its size, its hardening, and what it asks of the router's C library."""

import os
import re
import subprocess
from pathlib import Path

import pytest

BINARY = os.environ["TAVLO_BINARY"]
# uClibc-ng itself, where the binary was linked with it.
UCLIBC_NG = next(Path(os.environ.get("TAVLO_SYSROOT") or "/nowhere").glob("lib/libuClibc-*.so"), None)
LARGEST_SIZE = 260 * 1000  # bytes

# Decided by the C++ library's own headers, according to what its C library had when the toolchain
# was made, or by its start-up code.
TOOLCHAINS_OWN = {
    "__libc_single_threaded",  # of std::shared_ptr
    "__libc_start_main", "__uClibc_main",  # of the start-up code
}


def readelf(*options, path=BINARY):
    result = subprocess.run(["readelf", "-W", *options, path], check=True, capture_output=True,
                            text=True, errors="replace", env={**os.environ, "LC_ALL": "C"})
    return result.stdout


def imported_symbols():
    """Name and version of each function and object that other libraries must have."""
    for line in readelf("--dyn-syms").splitlines():
        fields = line.split()
        if len(fields) > 7 and fields[6] == "UND":
            name, _, version = fields[7].partition("@")
            yield name, version.lstrip("@")


def exported_symbols(path):
    for line in readelf("--dyn-syms", path=path).splitlines():
        fields = line.split()
        if len(fields) > 7 and fields[4] in ("GLOBAL", "WEAK") and fields[6] != "UND":
            yield fields[7]


def known_to_uclibc_ng():
    lines = (Path(__file__).parent / "uclibc_ng.txt").read_text(encoding="ascii").splitlines()
    return {line for line in lines if line and not line.startswith("#")}


def segment_flags(name):
    line = next(line for line in readelf("-l").splitlines() if line.split()[:1] == [name])
    return re.search(r" ([R ][W ][E ]) 0x[0-9a-f]+$", line)[1]


def test_it_is_small():
    assert os.path.getsize(BINARY) <= LARGEST_SIZE


def test_it_is_stripped_but_can_name_its_functions():
    sections = readelf("-S")
    assert ".symtab" not in sections and ".debug_info" not in sections
    defined = [line for line in readelf("--dyn-syms").splitlines()
               if "AgentHost3RunEv" in line and " UND " not in line]
    assert len(defined) == 1


def test_a_crash_record_can_name_all_functions_of_its_own():
    own = set()
    for line in readelf("--syms", path=f"{BINARY}.debug").splitlines():
        fields = line.split()
        if fields[3:5] == ["FUNC", "GLOBAL"] and fields[6] not in ("UND", "ABS"):
            own.add(fields[7])
    own = {name for name in own if not re.match(r"_ZN?K?S|_ZN?K?9rapidjson|_(start|init|fini)$", name)}
    assert len(own) > 200
    assert own <= set(exported_symbols(BINARY))


def test_it_tells_its_version():
    lists = (Path(__file__).parents[2] / "CMakeLists.txt").read_text(encoding="ascii")
    version = re.search(r"project\(tavlo VERSION (\S+)", lists)[1]
    assert f'{{"name":"tavlo","version":"{version}"}}' in readelf("--notes")


def test_its_debug_file_can_be_found():
    assert re.search(r"Build ID: [0-9a-f]{40}", readelf("--notes"))
    link = readelf("--string-dump=.gnu_debuglink").splitlines()
    assert any(line.endswith(" tavlo.debug") for line in link)


def test_it_is_position_independent():
    assert re.search(r"Type: +DYN \(Position-Independent Executable file\)", readelf("-h"))


def test_its_relocations_are_read_only():
    assert "GNU_RELRO" in readelf("-l")
    assert re.search(r"FLAGS_1\).*\bNOW\b", readelf("-d"))


def test_neither_its_stack_nor_its_data_is_executable():
    assert segment_flags("GNU_STACK") == "RW "
    loads = [line for line in readelf("-l").splitlines() if line.split()[:1] == ["LOAD"]]
    assert loads and not any(re.search(r"RWE 0x", line) for line in loads)


def test_its_stack_is_protected_and_its_calls_fortified():
    names = {name for name, _ in imported_symbols()}
    assert "__stack_chk_fail" in names
    # uClibc-ng has no fortified calls.
    assert UCLIBC_NG or any(re.fullmatch(r"__\w+_chk", name) for name in names)


def test_it_brings_no_path_to_search_libraries_in():
    assert not re.search(r"\((?:RPATH|RUNPATH)\)", readelf("-d"))


def test_it_needs_no_more_libraries_than_documented():
    needed = re.findall(r"\(NEEDED\).*\[(.*?)\.so", readelf("-d"))
    assert sorted(name for name in needed if not name.startswith("ld")) == [
        "libc", "libcrypto", "libevent_core-2.1", "libevent_extra-2.1", "libevent_openssl-2.1",
        "libevent_pthreads-2.1", "libgcc_s", "libjson-c", "libssl", "libstdc++"]


def of_the_c_library():
    if UCLIBC_NG:
        own = set(exported_symbols(UCLIBC_NG))
        return sorted(own.intersection(name for name, _ in imported_symbols()))
    return sorted(name for name, version in imported_symbols() if version.startswith("GLIBC_"))


@pytest.mark.parametrize("name", of_the_c_library())
def test_uclibc_ng_has(name):
    # A fortified call is the plain one where the C library's headers know of no other.
    plain = re.sub(r"^__(\w+)_chk$", r"\1", name)
    assert {name, plain} & (known_to_uclibc_ng() | TOOLCHAINS_OWN)


@pytest.mark.skipif(UCLIBC_NG is None, reason="it takes uClibc-ng to see what is in it")
def test_uclibc_ng_has_all_that_is_said_to_be_in_it():
    loader = UCLIBC_NG.with_name(UCLIBC_NG.name.replace("libuClibc-", "ld-uClibc-"))
    assert not known_to_uclibc_ng() - {*exported_symbols(UCLIBC_NG), *exported_symbols(loader)}
