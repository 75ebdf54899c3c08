#include "ctl/printable.h"

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

std::string ForTerminal(std::string_view text) {
  if (!IsUtf8(text)) {
    return Printable(text, text.size());
  }
  std::string result;
  for (size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    const bool hasHighControl = byte == 0xc2 && static_cast<unsigned char>(text[i + 1]) < 0xa0;
    const bool isControl = (byte < ' ' && byte != '\t') || byte == 0x7f || hasHighControl;
    result += isControl ? '?' : text[i];
    i += hasHighControl ? 1 : 0;
  }
  return result;
}

}  // namespace tavlo::ctl
