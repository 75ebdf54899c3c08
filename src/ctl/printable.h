#pragma once

#include <string>
#include <string_view>

namespace tavlo::ctl {

/// A text of anybody's for terminals, JSON and pages: each byte that is no printable ASCII becomes
/// "\xNN", a backslash two. Of a longer text than `most` bytes the rest becomes "...".
std::string Printable(std::string_view text, size_t most);

bool IsUtf8(std::string_view text);

/// A text for terminals: of UTF-8, which names and values may be in, each control character but a
/// tab becomes "?"; all else is shown as `Printable` does.
std::string ForTerminal(std::string_view text);

}  // namespace tavlo::ctl
