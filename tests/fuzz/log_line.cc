// One line of the log: any level, function and text.

#include <iostream>
#include <sstream>

#include "fuzz/fuzz.h"
#include "util/log.h"

namespace {

// What the console would have got.
std::ostringstream& Console() {
  static std::ostringstream console;
  return console;
}

bool OpenLog() {
  std::clog.rdbuf(Console().rdbuf());
  Orx::Log::Open("fuzz", "", Orx::Log::kDebug, true, false, false);
  return true;
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool opened = OpenLog();
  fuzz::Require(opened, "the log is open");
  fuzz::Input input(data, size);
  const int byte = input.Byte();
  const int level = byte < 128 ? byte : byte - 256;
  const std::string function = input.Line();
  const std::string text = input.Rest();

  Console().str("");
  Orx::Log::Message2(level, function.c_str(), "%s", text.c_str());
  const std::string line = Console().str();
  if (level > Orx::Log::kDebug) {
    fuzz::Require(line.empty(), "what is above the level is dropped");
    return 0;
  }
  fuzz::Require(!line.empty() && line.back() == '\n', "a line ends");
  fuzz::Require(line.size() <= Orx::Log::kMaxLineLength + 1, "a long line is cut");
  fuzz::Require(line.find('\0') == line.npos, "a line is text");
  // Time, process and thread are in front of what was given, which is whole or cut at the end.
  const std::string given = text.substr(0, text.find('\0')) + "\n";
  const std::string end = line.substr(line.size() - std::min(line.size(), given.size()));
  fuzz::Require(line.size() == Orx::Log::kMaxLineLength + 1 || end == given, "the text is kept");
  return 0;
}
