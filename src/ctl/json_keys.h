#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace tavlo::ctl {

/// A key of the outermost object of a JSON text, and where its name begins, in bytes.
struct JsonKey {
  std::string name;
  size_t offset;
};

/// The keys in the order of the text, repeated ones included: the parser keeps neither. Of a text
/// that the parser takes, with single quotes and comments perhaps. Escape sequences stay as they
/// are.
std::vector<JsonKey> TopLevelKeys(const std::string& text);

}  // namespace tavlo::ctl
