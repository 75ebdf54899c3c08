#pragma once

#include <string>
#include <string_view>

namespace tavlo::ctl {

/// A text of anybody's for terminals, JSON and pages: each byte that is no printable ASCII becomes
/// "\xNN", a backslash two. Of a longer text than `most` bytes the rest becomes "...".
std::string Printable(std::string_view text, size_t most);

}  // namespace tavlo::ctl
