#pragma once

#include <string_view>

namespace tavlo::ctl {

/// Letters must be the same, case included. Every text begins and ends with an empty one.
inline bool BeginsWith(std::string_view text, std::string_view start) {
  return text.substr(0, start.size()) == start;
}

inline bool EndsWith(std::string_view text, std::string_view end) {
  return text.size() >= end.size() && text.substr(text.size() - end.size()) == end;
}

}  // namespace tavlo::ctl
