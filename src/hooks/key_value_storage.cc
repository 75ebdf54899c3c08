#include "hooks/key_value_storage.h"

#include <sstream>

namespace Orx::KeyValueStorage {

namespace {

constexpr const char* kTrimmed = " \r\n";
constexpr size_t kShortestLine = 3;

}  // namespace

std::map<std::string, std::string> StringToMap(const std::string& text) {
  std::map<std::string, std::string> values;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line, '\n');) {
    const size_t colon = line.find(':');
    if (line.size() < kShortestLine || colon == std::string::npos || colon == 0 ||
        colon == line.size() - 1) {
      continue;
    }
    std::string key = line.substr(0, colon);
    key.erase(key.find_last_not_of(kTrimmed) + 1);
    std::string value = line.substr(colon + 1);
    value.erase(0, value.find_first_not_of(kTrimmed));
    values[key] = value;
  }
  return values;
}

}  // namespace Orx::KeyValueStorage
