#include "ctl/printable.h"

namespace tavlo::ctl {

std::string Printable(std::string_view text, size_t most) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::string result;
  for (const char c : text.substr(0, most)) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '\\') {
      result += "\\\\";
    } else if (byte >= ' ' && byte < 0x7f) {
      result += c;
    } else {
      result += "\\x";
      result += kDigits[byte / 16];
      result += kDigits[byte % 16];
    }
  }
  return text.size() > most ? result + "..." : result;
}

}  // namespace tavlo::ctl
