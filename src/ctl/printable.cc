#include "ctl/printable.h"

#include <algorithm>

#include <rapidjson/memorystream.h>
#include <rapidjson/stringbuffer.h>

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

std::string WithoutControlCharacters(std::string text) {
  std::replace_if(
      text.begin(), text.end(),
      [](unsigned char letter) { return (letter < ' ' && letter != '\t') || letter == 0x7f; }, '?');
  return text;
}

bool IsUtf8(std::string_view text) {
  rapidjson::MemoryStream in(text.data(), text.size());
  rapidjson::StringBuffer out;
  while (in.Tell() < text.size()) {
    if (!rapidjson::UTF8<>::Validate(in, out)) {
      return false;
    }
  }
  return true;
}

}  // namespace tavlo::ctl
