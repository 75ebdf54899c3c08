"""tools/decode-backtrace: from a crash record to functions, files and lines."""

import importlib.machinery
import importlib.util
import os
import re
import shutil
import signal
import subprocess
import sys
from pathlib import Path

import pytest

from support.daemon import BINARY, DIE_WITH_PARENT, IS_WITH_MUSL
from support.waiting import DEFAULT_LIMIT

PROJECT = Path(__file__).resolve().parents[2]
TOOL = PROJECT / "tools" / "decode-backtrace"
# For a daemon of another processor; what the tests compile is of this machine's own.
DAEMON_PREFIX = os.environ.get("TAVLO_BINUTILS_PREFIX", "")
DEBUG_FILE = Path(BINARY + ".debug")  # only the release build splits it off

END = "-" * 50 + "\n\n"
ADDED = re.compile(r"^    (?P<function>.*?) at (?P<file>\S+):(?P<line>\d+)"
                   r"(?P<inlined> \(inlined\))?$")

# Two names that the crash handler cuts to the same text.
LONG_NAME = "LongName" + "x" * 300

# Each line that is on the stack ends in a comment to find it by. Nothing may stand between one
# function and the next: Start() ends with a call, so the return address is AfterStart().
PROGRAM = """
#include <cstdlib>

#include "util/crash_handler.h"

namespace {

int calls = 0;

[[gnu::noipa]] int Count(volatile int* place);

inline void Store(volatile int* place) {
  *place = 1;  // Store
}

[[gnu::noipa]] int StoreAndCount(volatile int* place) {
  Store(place);  // StoreAndCount
  return ++calls;
}

inline int CountTwice(volatile int* place) {
  return 2 * StoreAndCount(place);  // CountTwice
}

}  // namespace

[[gnu::noipa]] int LONG_NAME_B(volatile int* place) {
  return *place;
}

[[gnu::noipa]] int LONG_NAME_A(volatile int* place) {
  return 1 + CountTwice(place);  // LongName
}

namespace {

int Count(volatile int* place) {
  return 1 + LONG_NAME_A(place);  // Count
}

}  // namespace

struct Base {
  int count = 0;
};

// With a virtual base there are two constructors of one name.
struct Derived : virtual Base {
  [[gnu::noinline]] explicit Derived(volatile int* place) {
    count = Count(place);  // Derived
  }
};

struct MoreDerived : Derived {
  [[gnu::noinline]] explicit MoreDerived(volatile int* place) : Derived(place) {}
};

[[noreturn, gnu::noipa]] void Finish(volatile int* place) {
  Derived derived(place);  // Finish
  MoreDerived more(place);
  std::exit(derived.count + more.count + LONG_NAME_B(place));
}

[[gnu::noipa]] void Start(volatile int* place) {
  Finish(place);  // Start
}

[[gnu::noipa]] int AfterStart() {
  return calls;
}

int main(int, char** argv) {
  Mirel::RegisterCrashHandler("program");
  Mirel::SetBacktraceDirectory(argv[1]);
  Start(reinterpret_cast<volatile int*>(std::strtoul(argv[2], nullptr, 16)));  // main
  return AfterStart();
}
""".replace("LONG_NAME", LONG_NAME)

# Function, inlined or not; from the fault outwards.
STACK = [("Store", True), ("StoreAndCount", False), ("CountTwice", True), ("LongName", False),
         ("Count", False), ("Derived", False), ("Finish", False), ("Start", False),
         ("main", False)]


def line_of(function):
    lines = PROGRAM.splitlines()
    return next(number for number, line in enumerate(lines, 1) if line.endswith(f"// {function}"))


def run(*command):
    subprocess.run(list(map(str, command)), check=True)


class Program:
    """A program that crashes at a known place, in several builds."""

    def __init__(self, directory):
        self.directory = directory
        self.source = directory / "program.cc"
        self.source.write_text(PROGRAM)
        self.library = []
        for name in ("crash_handler", "descriptor", "standard_error", "log"):
            self.library.append(directory / f"{name}.o")
            run("g++", "-std=c++17", "-O1", "-fPIE", "-I", PROJECT / "src",
                "-c", PROJECT / "src" / "util" / f"{name}.cc", "-o", self.library[-1])
        self.movable = self.build("movable", "-g", "-fPIE", "-pie")
        self.record = self.crash(self.movable)

    def build(self, name, *options):
        path = self.directory / name
        run("g++", "-std=c++17", "-O2", "-fno-toplevel-reorder", "-fno-align-functions",
            "-rdynamic", "-I", PROJECT / "src", *options, self.source, *self.library,
            "-pthread", "-o", path)
        return path

    def crash(self, path, environment=None):
        """Returns the record. The fault is at address 0x1230."""
        directory = self.directory / f"{path.name}-record"
        shutil.rmtree(directory, ignore_errors=True)
        directory.mkdir()
        result = subprocess.run([*DIE_WITH_PARENT, path, directory, "1230"], check=False,
                                cwd=directory, capture_output=True, timeout=DEFAULT_LIMIT,
                                env=environment)
        assert result.returncode == -signal.SIGSEGV
        return (directory / "program-backtrace.log").read_text()


@pytest.fixture(scope="module")
def program(tmp_path_factory):
    return Program(tmp_path_factory.mktemp("program"))


@pytest.fixture(scope="module")
def fixed(program):
    return program.build("fixed", "-g", "-fno-pie", "-no-pie")


def decode(binary, record, *options):
    """Hands the record over on standard input."""
    return subprocess.run([sys.executable, "-B", TOOL, *options, binary, "-"], input=record,
                          capture_output=True, text=True, timeout=DEFAULT_LIMIT, check=False)


def decode_well(binary, record, *options):
    result = decode(binary, record, *options)
    assert (result.returncode, result.stderr) == (0, "")
    return result.stdout


def refuse(binary, record, *options):
    """Returns the complaint; nothing may have been decoded."""
    result = decode(binary, record, *options)
    assert result.returncode == 1
    assert result.stdout.strip() == ""
    return result.stderr


def added_lines(output):
    return [match for match in map(ADDED.match, output.splitlines()) if match]


def without_added(output):
    return "".join(line for line in output.splitlines(True) if not line.startswith("    "))


def stack(output, program):
    """What was found in the program's own file."""
    return [(match["function"], int(match["line"]), match["inlined"] is not None)
            for match in added_lines(output) if match["file"] == str(program.source)]


def assert_whole_stack(output, program):
    found = stack(output, program)
    assert len(found) == len(STACK), output
    for (name, line, inlined), (expected_name, expected_inlined) in zip(found, STACK):
        assert re.search(rf"\b{expected_name}(x|\(|$)", name), output
        assert (line, inlined) == (line_of(expected_name), expected_inlined), output


def frame_lines(record):
    return [line for line in record.splitlines() if line.startswith("0x")]


def named_lines(record, name):
    found = [line for line in frame_lines(record) if re.search(rf" (\w+::)*{name}", line)]
    assert found, record
    return found


def nameless(line):
    return line.split(" ")[0] + " <private>  0"


def keep_one_name(record, kept):
    return "".join(line if not line.startswith("0x") or line.rstrip("\n") == kept
                   else nameless(line) + "\n" for line in record.splitlines(True))


# --- the daemon itself ---


@pytest.fixture
def daemon_record(root, daemon):
    daemon.crash()
    return (root.directory / "tmp" / "tavlo-backtrace.log").read_text()


@pytest.mark.skipif(IS_WITH_MUSL, reason="musl's system calls, one of which the main thread waits in, "
                                         "have no unwind tables: the record ends there")
def test_a_crash_of_the_daemon_is_traced_to_its_line(daemon_record, tmp_path):
    binary = shutil.copy(DEBUG_FILE if DEBUG_FILE.exists() else BINARY, tmp_path / "kept")
    source = PROJECT / "src" / "app" / "run_loop.cc"
    line, = (number for number, text in enumerate(source.read_text().splitlines(), 1)
             if "= ::sigtimedwait(" in text)
    output = decode_well(binary, daemon_record, f"--prefix={DAEMON_PREFIX}")
    wait, caller = [match for match in added_lines(output)
                    if match["file"].endswith("src/app/run_loop.cc")]
    assert re.search(r"\bWaitForSignal(\(|$)", wait["function"])
    assert int(wait["line"]) == line
    assert caller["function"] == "Run()"
    assert without_added(output) == daemon_record


def test_the_shipped_binary_is_stripped_and_refused(daemon_record):
    if not DEBUG_FILE.exists():
        pytest.skip("only the release build is stripped")
    assert "give the unstripped binary, or the debug file" in refuse(BINARY, daemon_record)
    symbols = subprocess.run(["nm", BINARY], capture_output=True, text=True, check=False)
    assert "no symbols" in symbols.stderr
    link = subprocess.run(["readelf", "--string-dump=.gnu_debuglink", BINARY], capture_output=True,
                          check=True)  # no text: a checksum follows the name
    assert b"tavlo.debug" in link.stdout


# --- a known stack ---


def test_every_frame_has_its_line(program):
    output = decode_well(program.movable, program.record)
    assert_whole_stack(output, program)
    assert without_added(output) == program.record


def test_the_added_lines_follow_their_frame(program):
    lines = decode_well(program.movable, program.record).splitlines()
    main = lines.index(*named_lines(program.record, "main "))
    assert lines[main + 1] == f"    main at {program.source}:{line_of('main')}"


def test_a_return_address_behind_its_function_belongs_to_the_call(program):
    after, = named_lines(program.record, r"AfterStart\(\)  0$")
    lines = decode_well(program.movable, program.record).splitlines()
    assert lines[lines.index(after) + 1].strip().startswith("Start(")


@pytest.mark.parametrize("name", ["LongName", "Derived::Derived", r"Finish\(", r"AfterStart\(",
                                  "main "])
def test_one_name_is_enough(program, name):
    line, = named_lines(program.record, name)
    assert_whole_stack(decode_well(program.movable, keep_one_name(program.record, line)), program)


def test_the_names_that_have_to_be_told_apart_are_in_the_program(program):
    """What the test above relies on."""
    names = subprocess.run(["nm", "-C", program.movable], capture_output=True, text=True,
                           check=True).stdout.splitlines()
    assert len([line for line in names if "Derived::Derived(int volatile*)" in line
                and "More" not in line]) == 2
    assert len([line for line in names if f" {LONG_NAME}" in line]) == 2
    line, = named_lines(program.record, "LongName")
    assert len(line.split(" ")[1]) == 299


def test_a_name_of_the_binary_in_a_library_does_not_disturb(program):
    line, = named_lines(program.record, "__libc_start_main")
    record = program.record.replace("__libc_start_main", "AfterStart()")
    assert line not in record.splitlines()
    assert_whole_stack(decode_well(program.movable, record), program)


@pytest.mark.parametrize("name", ["AfterStart()", "_end"])  # the last one ends nowhere
def test_a_name_of_the_binary_far_from_its_code_does_not_count(program, name):
    """Here with an offset that would do for the start of a page."""
    main, = named_lines(program.record, "main ")
    library, = named_lines(program.record, "__libc_start_main")
    symbols = subprocess.run(["nm", "-C", program.movable], capture_output=True, text=True,
                             check=True).stdout
    value = int(re.search(rf"^(\w+) [TB] {re.escape(name)}$", symbols, re.MULTILINE)[1], 16)
    address = library.split(" ")[0]
    offset = 0x1000000 + (int(address, 16) - value) % 0x1000
    record = keep_one_name(program.record, main).replace(
        nameless(library), f"{address} {name} + {offset:#x}")
    assert record.count(name) == 1
    assert_whole_stack(decode_well(program.movable, record), program)


def test_a_local_function_may_have_the_name_of_the_exported_one_before_it(program):
    """uClibc-ng's dladdr does not ask how far a function reaches."""
    output = subprocess.run(["nm", "-C", "--defined-only", program.movable], capture_output=True,
                            text=True, check=True).stdout
    exported = sorted((int(value, 16), name) for value, kind, name in (
        line.split(" ", 2) for line in output.splitlines()) if kind in "TW")
    main, = named_lines(program.record, "main ")
    load_address = (int(main.split(" ")[0], 16) - int(main.rpartition(" + ")[2], 16)
                    - next(value for value, name in exported if name == "main"))
    record = program.record
    renamed = 0
    for line in frame_lines(program.record):
        place = int(line.split(" ")[0], 16) - load_address
        if line.endswith(" <private>  0") and exported[0][0] < place < exported[-1][0]:
            value, name = next(symbol for symbol in reversed(exported) if symbol[0] <= place)
            record = record.replace(line, f"{line.split(' ')[0]} {name[:299]} + {place - value:#x}")
            renamed += 1
    assert renamed >= 2  # StoreAndCount() and Count()
    assert_whole_stack(decode_well(program.movable, record), program)


def test_split_debug_information_is_enough(program):
    debug = program.directory / "split.debug"
    run("objcopy", "--only-keep-debug", program.movable, debug)
    assert_whole_stack(decode_well(debug, program.record), program)


def test_exported_symbols_and_debug_information_are_enough(program):
    exported = program.directory / "exported"
    run("objcopy", "--strip-all", "--keep-section=.debug*", program.movable, exported)
    result = subprocess.run(["nm", exported], capture_output=True, text=True, check=False)
    assert "no symbols" in result.stderr
    assert_whole_stack(decode_well(exported, program.record), program)


def test_a_binary_at_a_fixed_address_is_decoded(program, fixed):
    assert_whole_stack(decode_well(fixed, program.crash(fixed)), program)


def test_a_name_that_was_not_demangled_is_one_too(program):
    finish, = named_lines(program.record, r"Finish\(")
    mangled = finish.replace("Finish(int volatile*)", "_Z6FinishPVi")
    assert mangled != finish
    record = keep_one_name(program.record, finish).replace(finish, mangled)
    assert_whole_stack(decode_well(program.movable, record), program)


def test_a_record_of_a_damaged_heap_has_the_linkers_names_and_is_decoded(program):
    source = program.directory / "damage.c"
    # What the demangler would come to there.
    source.write_text("#include <stdlib.h>\nchar* __cxa_demangle(void) { abort(); }\n")
    library = program.directory / "damage.so"
    run("gcc", "-shared", "-fPIC", "-o", library, source)
    record = program.crash(program.movable, {**os.environ, "LD_PRELOAD": str(library)})
    assert named_lines(record, "_Z6FinishPVi ") and "Finish(" not in record
    output = decode_well(program.movable, record)
    assert_whole_stack(output, program)
    assert without_added(output) == record


def test_frames_of_libraries_stay_as_they_are(program):
    lines = decode_well(program.movable, program.record).splitlines()
    library, = named_lines(program.record, "__libc_start_main")
    assert not lines[lines.index(library) + 1].startswith(" ")


def test_an_unknown_function_has_no_line(program):
    """The start-up code of the C library has no debug information."""
    lines = decode_well(program.movable, program.record).splitlines()
    start, = named_lines(program.record, "_start ")
    assert lines[lines.index(start) + 1] == "    _start, no line known"


# --- another binary ---


def assert_mismatch(complaint, record, names):
    assert "it is of another binary than " in complaint
    for name in names:
        for line in named_lines(record, name):
            assert f"\n  {line}: the binary would be at 0x" in complaint
    return complaint


def test_another_version_is_refused(program):
    other = program.build("other", "-g", "-fPIE", "-pie", "-fstack-protector-all")
    assert_mismatch(refuse(other, program.record), program.record, [r"Finish\(", "Derived"])


def test_a_binary_at_another_fixed_address_is_refused(program, fixed):
    assert_mismatch(refuse(fixed, program.record), program.record, [r"Finish\(", "main "])


def test_a_binary_at_a_fixed_address_can_be_nowhere_else(program, fixed):
    record = re.sub("^0x([0-9a-f]+)", lambda match: hex(int(match[1], 16) + 0x100000),
                    program.crash(fixed), flags=re.MULTILINE)
    assert "would be at 0x100000\n" in assert_mismatch(refuse(fixed, record), record, ["main "])


def test_the_frames_that_deviate_are_named(program):
    line, = named_lines(program.record, r"Finish\(")
    address = line.split(" ")[0]
    record = program.record.replace(line, line.replace(address, hex(int(address, 16) + 1)))
    complaint = assert_mismatch(refuse(program.movable, record), record, [r"Finish\("])
    assert "other frames agree on 0x" in complaint
    assert complaint.count(": the binary would be at ") == 1


def test_an_offset_beyond_the_function_is_of_another_binary(program):
    line, = named_lines(program.record, r"Finish\(")
    start, _, offset = line.rpartition("0x")
    # Whole pages, so that the load address would do by itself.
    for pages in (1, 100):
        wrong = start + hex(int(offset, 16) + pages * 0x1000)
        complaint = refuse(program.movable, program.record.replace(line, wrong))
        assert f"\n  {wrong}: it does not reach so far\n" in complaint + "\n"


def test_two_possible_load_addresses_are_refused(program):
    main, = named_lines(program.record, "main ")
    address = main.split(" ")[0]
    twin = main.replace(address, hex(int(address, 16) + 0x10000000))
    record = keep_one_name(program.record, main).replace(main, f"{main}\n{twin}")
    complaint = assert_mismatch(refuse(program.movable, record), record, ["main "])
    assert "several load addresses are possible" in complaint


@pytest.mark.parametrize("place", [0x1001, 0x7f8, -0x1000])
def test_a_load_address_that_no_binary_can_have_is_refused(program, place):
    """With one name only nothing contradicts it."""
    main, = named_lines(program.record, "main ")
    symbols = subprocess.run(["nm", program.movable], capture_output=True, text=True,
                             check=True).stdout
    value = int(re.search(r"^(\w+) T main$", symbols, re.MULTILINE)[1], 16)
    offset = int(main.rpartition(" + ")[2], 16)
    moved = main.replace(main.split(" ")[0], hex(place + value + offset))
    record = keep_one_name(program.record, main).replace(main, moved)
    assert "no load address is possible" in refuse(program.movable, record)


def test_without_a_name_of_the_binary_it_is_refused(program):
    complaint = refuse(program.movable, keep_one_name(program.record, None))
    assert "no frame has a name that is in the binary" in complaint


# --- several records, damaged records ---


def test_several_records_are_decoded_in_order(program):
    records = [program.record, program.crash(program.movable)]
    for at, time in enumerate(("2026-01-31 17:04:05", "2026-02-01 00:00:00")):
        records[at] = re.sub(r"^\(.*?\)", f"({time})", records[at])
    output = decode_well(program.movable, "".join(records))
    assert without_added(output) == "".join(records)
    assert len(stack(output, program)) == 2 * len(STACK)


def test_the_last_record_alone(program):
    # The first one would be refused.
    first = keep_one_name(program.record, None)
    output = decode_well(program.movable, first + program.record, "--last")
    assert without_added(output) == program.record
    assert_whole_stack(output, program)


def test_a_record_of_another_binary_does_not_keep_the_others_back(program):
    result = decode(program.movable, keep_one_name(program.record, None) + program.record)
    assert result.returncode == 1
    assert "record 1 of 2: no frame has a name" in result.stderr
    assert "record 2" not in result.stderr
    assert_whole_stack(result.stdout, program)


def test_what_is_there_of_a_cut_record_is_decoded(program):
    main, = named_lines(program.record, "main ")
    record = program.record[:program.record.index(main)] + main[:-1]  # a digit less
    result = decode(program.movable, record)
    assert result.returncode == 1
    assert result.stderr == "decode-backtrace: record 1 of 1: it is cut: its end is missing\n"
    assert_whole_stack(result.stdout, program)
    assert without_added(result.stdout).rstrip("\n") == record


@pytest.mark.parametrize("last", ["\nFault Add", " PC: 0x.", "\nBacktrace:\n", "\nBacktrace:\n0x."])
def test_a_record_cut_before_its_first_frame_is_shown(program, last):
    record = program.record[:re.search(last, program.record).end()]
    result = decode(program.movable, record)
    assert (result.returncode, result.stdout.rstrip("\n")) == (1, record.rstrip("\n"))
    assert "it is cut" in result.stderr


def test_a_record_may_begin_where_a_cut_one_ends(program):
    main, = named_lines(program.record, "main ")
    cut = program.record[:program.record.index(main) + 9]
    result = decode(program.movable, cut + program.record)
    assert result.returncode == 1
    assert result.stderr == "decode-backtrace: record 1 of 2: it is cut: its end is missing\n"
    assert_whole_stack(result.stdout.split(main[:9] + "\n")[1], program)


def test_a_malformed_line_is_reported_and_the_rest_decoded(program):
    record = program.record.replace("Backtrace:\n", "Backtrace:\n0x1 half a frame\n")
    result = decode(program.movable, record)
    assert result.returncode == 1
    assert "record 1 of 1: this line is no frame: 0x1 half a frame" in result.stderr
    assert_whole_stack(result.stdout, program)


def test_bytes_that_are_no_text_do_not_keep_the_rest_back(program):
    path = program.directory / "damaged"
    path.write_bytes(program.record.encode().replace(b"Backtrace:\n", b"Backtrace:\n\xff\xfe\n"))
    result = subprocess.run([TOOL, program.movable, path], capture_output=True, text=True,
                            timeout=DEFAULT_LIMIT, check=False)
    assert result.returncode == 1
    assert "record 1 of 1: this line is no frame: \\xff\\xfe" in result.stderr
    assert_whole_stack(result.stdout, program)


def test_a_malformed_heading_is_reported(program):
    result = decode(program.movable, program.record.replace("Fault address: ", "Fault "))
    assert result.returncode == 1
    assert "record 1 of 1: its heading is not that of a crash record" in result.stderr


def test_what_is_no_record_is_reported(program):
    result = decode(program.movable, "before\n" + program.record + "after\n")
    assert result.returncode == 1
    assert "what comes before it is no record" in result.stderr
    assert "what follows it is no record: after" in result.stderr
    assert_whole_stack(result.stdout, program)


@pytest.mark.parametrize("text", ["", "nothing of the kind\n"])
def test_a_file_without_a_record_is_refused(program, text):
    assert "there is no crash record in it" in refuse(program.movable, text)


# --- wrong files, wrong tools ---


def test_a_record_is_read_from_a_file(program):
    path = program.directory / "record"
    path.write_text(program.record)
    result = subprocess.run([TOOL, program.movable, path], capture_output=True, text=True,
                            timeout=DEFAULT_LIMIT, check=True)
    assert_whole_stack(result.stdout, program)


def test_nothing_is_left_in_the_directory_for_temporary_files(program, tmp_path, monkeypatch):
    monkeypatch.setenv("TMPDIR", str(tmp_path))
    decode_well(program.movable, program.record)
    refuse(program.movable, "")
    assert list(tmp_path.iterdir()) == []


def test_missing_files_are_named(program):
    assert "nowhere: No such file" in refuse(program.directory / "nowhere", program.record)
    result = subprocess.run([TOOL, program.movable, program.directory / "no-record"], text=True,
                            capture_output=True, timeout=DEFAULT_LIMIT, check=False)
    assert (result.returncode, result.stdout) == (1, "")
    assert "no-record: No such file" in result.stderr


def test_a_file_that_is_no_program_is_refused(program):
    assert "program.cc is no ELF file" in refuse(program.source, program.record)
    part = program.library[-1]
    assert f"{part.name} is no linked program" in refuse(part, program.record)


def test_a_binary_without_debug_information_is_refused(program):
    bare = program.build("bare", "-fPIE", "-pie")
    assert "bare has no debug information" in refuse(bare, program.record)


def test_a_binary_for_another_processor_needs_its_tools(program):
    foreign = program.directory / "foreign"
    data = bytearray(program.movable.read_bytes())
    data[18:20] = b"\xff\xfe"  # the processor
    foreign.write_bytes(data)
    complaint = refuse(foreign, program.record)
    assert "foreign" in complaint
    assert "(--prefix names the tools of another processor)" in complaint


def test_the_prefix_names_the_tools(program):
    tools = program.directory / "tools"
    tools.mkdir()
    for name in ("addr2line", "nm", "objcopy", "readelf"):
        (tools / f"other-{name}").symlink_to(shutil.which(name))
    output = decode_well(program.movable, program.record, "--prefix", f"{tools}/other-")
    assert_whole_stack(output, program)
    (tools / "other-nm").unlink()
    complaint = refuse(program.movable, program.record, "--prefix", f"{tools}/other-")
    assert ("other-nm cannot be run: No such file or directory; it is a part of the package binutils"
            in complaint)


def test_the_tools_do_not_speak_the_operators_language(program, monkeypatch):
    monkeypatch.setenv("LC_ALL", "de_DE.UTF-8")
    tools = program.directory / "speaking"
    tools.mkdir()
    for name in ("addr2line", "nm", "objcopy", "readelf"):
        tool_script = tools / name
        tool_script.write_text(f'#!/bin/sh\n[ "$LC_ALL" = C ] && exec {name} "$@"\n')
        tool_script.chmod(0o755)
    output = decode_well(program.movable, program.record, "--prefix", f"{tools}/")
    assert_whole_stack(output, program)


def test_a_symbol_without_a_name_is_not_that_of_a_frame_without_one(program):
    """Linkers for 32-bit ARM add some."""
    tools = program.directory / "adding"
    tools.mkdir()
    for name in ("addr2line", "objcopy", "readelf"):
        (tools / name).symlink_to(shutil.which(name))
    (tools / "nm").write_text('#!/bin/sh\nnm "$@" && echo "0000000000000010 t "\n')
    (tools / "nm").chmod(0o755)
    assert " <private>  0\n" in program.record
    output = decode_well(program.movable, program.record, "--prefix", f"{tools}/")
    assert_whole_stack(output, program)


# --- the parts that no real record reaches at will ---


@pytest.fixture(scope="module")
def tool():
    loader = importlib.machinery.SourceFileLoader("decode_backtrace", str(TOOL))
    module = importlib.util.module_from_spec(importlib.util.spec_from_loader(loader.name, loader))
    loader.exec_module(module)
    return module


def record_of(*lines, pc="0x2000"):
    return ("(2026-01-31 17:04:05) Process exit due to signal: 11\nFault Address: (nil)\n"
            f"Fault address: (nil) PC: {pc} SP: 0x10 LR: (nil)\nBacktrace:\n"
            + "".join(f"{line}\n" for line in lines) + END)


@pytest.mark.parametrize("line, expected", [
    ("0x7f10 tavlo::AgentHost::Run() + 0x1e", (0x7f10, "tavlo::AgentHost::Run()", 0x1e)),
    ("0x7f10 <private>  0", (0x7f10, "", 0)),
    ("0x7f10 Run()  0", (0x7f10, "Run()", 0)),
    ("0x7f10 A operator+ <A>(A const&) + 0x2", (0x7f10, "A operator+ <A>(A const&)", 2)),
])
def test_a_frame_line_has_an_address_a_name_and_an_offset(tool, line, expected):
    record, = tool.parse_records(record_of(line))
    frame, = record.frames
    assert (frame.address, frame.name, frame.offset) == expected
    assert record.problems == []


def test_what_the_compiler_adds_to_a_line_is_left_out(tool):
    assert tool.describe_place("Run()\nsrc/run.cc:7 (discriminator 2)\n") == ["Run() at src/run.cc:7"]


@pytest.mark.parametrize("line", ["0x1000 Run() + 0x1e0x2000 main + 0x5", "0x1000 Run()", "Run() + 0x1"])
def test_half_of_a_frame_line_is_none(tool, line):
    record, = tool.parse_records(record_of(line))
    assert record.real_frames() == []
    assert record.problems == [f"this line is no frame: {line}"]


def test_only_the_innermost_frame_at_the_program_counter_is_exact(tool):
    lines = [f"{address} <private>  0" for address in ("0x1000", "0x2000", "0x2000", "0x3000")]
    record, = tool.parse_records(record_of(*lines))
    assert tool.lookup_addresses(record) == [0xfff, 0x2000, 0x1fff, 0x2fff]


def test_without_a_program_counter_no_frame_is_exact(tool):
    record, = tool.parse_records(record_of("0x1000 <private>  0", pc="(nil)"))
    assert tool.lookup_addresses(record) == [0xfff]


def test_line_ends_of_another_system_do_not_matter(program):
    output = decode_well(program.movable, program.record.replace("\n", "\r\n"))
    assert without_added(output) == program.record
