#pragma once

#include <map>
#include <string>

namespace Orx::KeyValueStorage {

/// Turns lines of "key: value" into a map. The key is what stands before the first colon, with
/// blanks and line ends cut from its right; the value is the rest, with them cut from its left
/// only: a value keeps what trails it, a carriage return included. The last line with a key wins.
/// Lines that are shorter than 3 characters, have no colon, or have it first or last are skipped.
/// There are no errors.
std::map<std::string, std::string> StringToMap(const std::string& text);

}  // namespace Orx::KeyValueStorage
