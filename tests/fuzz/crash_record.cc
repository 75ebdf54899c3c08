// One line of a crash record: any address, name and distance. The demangler is the library's own
// affair; what it makes of a symbol is taken as any text here.

#include <cstdio>

#include <sys/mman.h>

#include "fuzz/fuzz.h"
// NOLINTNEXTLINE(bugprone-suspicious-include): what writes the line is local to it
#include "util/crash_handler.cc"

namespace {

constexpr size_t kFewFrames = 4;

uintptr_t Number(fuzz::Input* input) {
  uintptr_t number = 0;
  const std::string bytes = input->Take(sizeof number);
  std::memcpy(&number, bytes.data(), bytes.size());
  return number;
}

std::string Record() {
  static const int fd = ::memfd_create("record", 0);
  char record[4096];
  fuzz::Require(::ftruncate(fd, 0) == 0 && ::lseek(fd, 0, SEEK_SET) == 0, "the file is empty");
  WriteRecord(fd, {std::time(nullptr), SIGSEGV, nullptr, Registers()});
  const ssize_t size = ::pread(fd, record, sizeof record, 0);
  return {record, static_cast<size_t>(std::max<ssize_t>(size, 0))};
}

// What stands between the heading and the closing line.
std::string Frames(const std::string& record) {
  const std::string heading = "Backtrace:\n";
  const std::string closing = "--------------------------------------------------\n\n";
  const size_t start = record.find(heading);
  fuzz::Require(start != record.npos && record.size() >= start + heading.size() + closing.size(),
                "a record has all its parts");
  const size_t end = record.size() - closing.size();
  fuzz::Require(record.substr(end) == closing, "a record is closed");
  return record.substr(start + heading.size(), end - start - heading.size());
}

std::string ExpectedLine(uintptr_t address, const std::string& name, ptrdiff_t offset) {
  char start[32];
  char end[32];
  std::snprintf(start, sizeof start, "%p ", ToPointer(address));
  std::snprintf(end, sizeof end, " %s %#tx\n", offset >= 1 ? "+" : "", offset);
  return start + name.substr(0, std::min(name.find('\0'), kMaxNameSize - 1)) + end;
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Input input(data, size);
  std::string expected;
  state.frameCount = 0;
  while (!input.IsAtEnd() && state.frameCount < kFewFrames) {
    const uintptr_t address = Number(&input);
    const auto offset = static_cast<ptrdiff_t>(Number(&input));
    const std::string name = input.Line();
    state.frames[state.frameCount] = ToPointer(address);
    state.offsets[state.frameCount] = offset;
    SetName(state.frameCount, name.c_str());
    ++state.frameCount;
    expected += ExpectedLine(address, name, offset);
  }
  fuzz::Require(Frames(Record()) == expected, "each frame has its line, whole");
  return 0;
}
