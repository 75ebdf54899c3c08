#pragma once

#include <string>
#include <string_view>

namespace tavlo::ctl {

/// A text of anybody's for terminals, JSON and pages: each byte that is no printable ASCII becomes
/// "\xNN", a backslash two. Of a longer text than `most` bytes the rest becomes "...".
std::string Printable(std::string_view text, size_t most);

/// A text for terminals, with "?" for each control character but a tab. UTF-8, which names and
/// values may be in, stays as it is.
std::string WithoutControlCharacters(std::string text);

bool IsUtf8(std::string_view text);

}  // namespace tavlo::ctl
