// The router information file's lines, against a reading of their rules byte by byte.

#include "fuzz/fuzz.h"
#include "hooks/key_value_storage.h"

namespace {

bool IsTrimmed(char byte) {
  return byte == ' ' || byte == '\r' || byte == '\n';
}

void AddLine(const std::string& line, std::map<std::string, std::string>* values) {
  const size_t colon = line.find(':');
  if (line.size() < 3 || colon == line.npos || colon == 0 || colon + 1 == line.size()) {
    return;
  }
  size_t keyEnd = colon;
  while (keyEnd > 0 && IsTrimmed(line[keyEnd - 1])) {
    --keyEnd;
  }
  size_t valueStart = colon + 1;
  while (valueStart < line.size() && IsTrimmed(line[valueStart])) {
    ++valueStart;
  }
  (*values)[line.substr(0, keyEnd)] = line.substr(valueStart);
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  std::map<std::string, std::string> expected;
  std::string line;
  for (const char byte : text + "\n") {
    if (byte == '\n') {
      AddLine(line, &expected);
      line.clear();
    } else {
      line += byte;
    }
  }
  fuzz::Require(Orx::KeyValueStorage::StringToMap(text) == expected, "the map is as the rules say");
  return 0;
}
