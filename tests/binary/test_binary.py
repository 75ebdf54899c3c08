"""The shipped binaries: their size, its hardening, and what they ask of the router's C library."""

import os
import re
import subprocess
from pathlib import Path

import pytest

BINARY = os.environ["TAVLO_BINARY"]
TAVLOCTL = os.environ["TAVLOCTL_BINARY"]
# uClibc-ng or musl itself, where the binaries were linked with it.
SYSROOT = Path(os.environ.get("TAVLO_SYSROOT") or "/nowhere")
UCLIBC_NG = next(SYSROOT.glob("lib/libuClibc-*.so"), None)
ROUTERS_OWN = UCLIBC_NG or next(SYSROOT.glob("lib/ld-musl-*"), None)
# In bytes. On AArch64 up to 64 KiB of it are room for pages of that size, as the linker leaves it.
LARGEST_SIZE = {BINARY: 290 * 1000, TAVLOCTL: 340 * 1000}

both = pytest.mark.parametrize("path", [BINARY, TAVLOCTL], ids=["tavlo", "tavloctl"])

# Decided by the C++ library's own headers, according to what its C library had when the toolchain
# was made, or by its start-up code.
TOOLCHAINS_OWN = {
    "__libc_single_threaded",  # of std::shared_ptr
    "__libc_start_main", "__uClibc_main",  # of the start-up code
}


def readelf(path, *options):
    result = subprocess.run(["readelf", "-W", *options, path], check=True, capture_output=True,
                            text=True, errors="replace", env={**os.environ, "LC_ALL": "C"})
    return result.stdout


def imported_symbols(path):
    """Name and version of each function and object that other libraries must have."""
    for line in readelf(path, "--dyn-syms").splitlines():
        fields = line.split()
        if len(fields) > 7 and fields[6] == "UND":
            name, _, version = fields[7].partition("@")
            yield name, version.lstrip("@")


def exported_symbols(path):
    for line in readelf(path, "--dyn-syms").splitlines():
        fields = line.split()
        if len(fields) > 7 and fields[4] in ("GLOBAL", "WEAK") and fields[6] != "UND":
            yield fields[7]


def known_to_uclibc_ng():
    lines = (Path(__file__).parent / "uclibc_ng.txt").read_text(encoding="ascii").splitlines()
    return {line for line in lines if line and not line.startswith("#")}


def segment_flags(path, name):
    line = next(line for line in readelf(path, "-l").splitlines() if line.split()[:1] == [name])
    return re.search(r" ([R ][W ][E ]) 0x[0-9a-f]+$", line)[1]


@both
def test_it_is_small(path):
    assert os.path.getsize(path) <= LARGEST_SIZE[path]


@both
def test_it_is_stripped(path):
    sections = readelf(path, "-S")
    assert ".symtab" not in sections and ".debug_info" not in sections


def test_the_daemon_can_name_its_functions():
    defined = [line for line in readelf(BINARY, "--dyn-syms").splitlines()
               if "AgentHost3RunEv" in line and " UND " not in line]
    assert len(defined) == 1


def test_a_crash_record_can_name_all_functions_of_its_own():
    own = set()
    for line in readelf(f"{BINARY}.debug", "--syms").splitlines():
        fields = line.split()
        if fields[3:5] == ["FUNC", "GLOBAL"] and fields[6] not in ("UND", "ABS"):
            own.add(fields[7])
    own = {name for name in own if not re.match(r"_ZN?K?S|_ZN?K?9rapidjson|_(start|start_c|init|fini)$", name)}
    assert len(own) > 200
    assert own <= set(exported_symbols(BINARY))


@both
def test_it_tells_its_version(path):
    lists = (Path(__file__).parents[2] / "CMakeLists.txt").read_text(encoding="ascii")
    version = re.search(r"project\(tavlo VERSION (\S+)", lists)[1]
    name = os.path.basename(path)
    assert f'{{"name":"{name}","version":"{version}"}}' in readelf(path, "--notes")


@both
def test_its_debug_file_can_be_found(path):
    assert re.search(r"Build ID: [0-9a-f]{40}", readelf(path, "--notes"))
    link = readelf(path, "--string-dump=.gnu_debuglink").splitlines()
    assert any(line.endswith(f" {os.path.basename(path)}.debug") for line in link)


@both
def test_it_is_position_independent(path):
    assert re.search(r"Type: +DYN \(Position-Independent Executable file\)", readelf(path, "-h"))


@both
def test_its_relocations_are_read_only(path):
    assert "GNU_RELRO" in readelf(path, "-l")
    assert re.search(r"FLAGS_1\).*\bNOW\b", readelf(path, "-d"))


@both
def test_neither_its_stack_nor_its_data_is_executable(path):
    assert segment_flags(path, "GNU_STACK") == "RW "
    loads = [line for line in readelf(path, "-l").splitlines() if line.split()[:1] == ["LOAD"]]
    assert loads and not any(re.search(r"RWE 0x", line) for line in loads)


@both
def test_its_stack_is_protected_and_its_calls_fortified(path):
    names = {name for name, _ in imported_symbols(path)}
    assert "__stack_chk_fail" in names
    # They have no fortified calls.
    assert ROUTERS_OWN or any(re.fullmatch(r"__\w+_chk", name) for name in names)


@both
def test_it_brings_no_path_to_search_libraries_in(path):
    assert not re.search(r"\((?:RPATH|RUNPATH)\)", readelf(path, "-d"))


def needed_libraries(path):
    needed = re.findall(r"\(NEEDED\).*\[(.*?)\.so", readelf(path, "-d"))
    return sorted(name for name in needed if not name.startswith("ld"))


def test_the_daemon_needs_no_more_libraries_than_documented():
    assert needed_libraries(BINARY) == [
        "libc", "libcrypto", "libevent_core-2.1", "libevent_extra-2.1", "libevent_openssl-2.1",
        "libevent_pthreads-2.1", "libgcc_s", "libjson-c", "libssl", "libstdc++"]


def test_tavloctl_needs_zlib_and_no_more_than_the_daemon():
    assert set(needed_libraries(TAVLOCTL)) - set(needed_libraries(BINARY)) == {"libz"}
    assert not [name for name in needed_libraries(TAVLOCTL) if "event" in name]


def of_the_c_library():
    imported = {each for path in (BINARY, TAVLOCTL) for each in imported_symbols(path)}
    if ROUTERS_OWN:
        own = set(exported_symbols(ROUTERS_OWN))
        return sorted(own.intersection(name for name, _ in imported))
    return sorted({name for name, version in imported if version.startswith("GLIBC_")})


@pytest.mark.skipif(ROUTERS_OWN is not None and UCLIBC_NG is None,
                    reason="musl's headers ask for names of its own")
@pytest.mark.parametrize("name", of_the_c_library())
def test_uclibc_ng_has(name):
    # A fortified call is the plain one where the C library's headers know of no other.
    plain = re.sub(r"^__(\w+)_chk$", r"\1", name)
    # Where the processor has 32 bits, one of times or file sizes of 64 has a name of its own.
    plain = re.sub(r"^(?:__)?(\w+?)(?:64)?(?:_time64|64)(_r)?$", r"\1\2", plain)
    assert {name, plain} & (known_to_uclibc_ng() | TOOLCHAINS_OWN)


@pytest.mark.skipif(UCLIBC_NG is None, reason="it takes uClibc-ng to see what is in it")
def test_uclibc_ng_has_all_that_is_said_to_be_in_it():
    loader = UCLIBC_NG.with_name(UCLIBC_NG.name.replace("libuClibc-", "ld-uClibc-"))
    assert not known_to_uclibc_ng() - {*exported_symbols(UCLIBC_NG), *exported_symbols(loader)}
