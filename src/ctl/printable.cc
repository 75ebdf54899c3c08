#include "ctl/printable.h"

#include <algorithm>

namespace tavlo::ctl {

namespace {

// Characters of UTF-8 whose first bytes are in a range; the second byte has one of its own, so that
// no character has two forms and none is half of a pair. All further bytes are from 0x80 to 0xbf.
struct Form {
  size_t length;
  unsigned char first[2];
  unsigned char second[2];
};

constexpr Form kForms[] = {
    {1, {0x00, 0x7f}, {}},           {2, {0xc2, 0xdf}, {0x80, 0xbf}},
    {3, {0xe0, 0xe0}, {0xa0, 0xbf}}, {3, {0xe1, 0xec}, {0x80, 0xbf}},
    {3, {0xed, 0xed}, {0x80, 0x9f}}, {3, {0xee, 0xef}, {0x80, 0xbf}},
    {4, {0xf0, 0xf0}, {0x90, 0xbf}}, {4, {0xf1, 0xf3}, {0x80, 0xbf}},
    {4, {0xf4, 0xf4}, {0x80, 0x8f}},
};

bool IsIn(const unsigned char (&range)[2], char byte) {
  return static_cast<unsigned char>(byte) >= range[0] &&
         static_cast<unsigned char>(byte) <= range[1];
}

// Of the character that a text begins with; 0 if that is none.
size_t CharacterLength(std::string_view text) {
  constexpr unsigned char kFurther[] = {0x80, 0xbf};
  for (const Form& form : kForms) {
    if (IsIn(form.first, text.front())) {
      const std::string_view rest = text.substr(1, form.length - 1);
      const bool isWhole =
          rest.size() == form.length - 1 && (rest.empty() || IsIn(form.second, rest.front())) &&
          std::all_of(rest.begin(), rest.end(), [&](char byte) { return IsIn(kFurther, byte); });
      return isWhole ? form.length : 0;
    }
  }
  return 0;
}

}  // namespace

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
  while (!text.empty()) {
    const size_t length = CharacterLength(text);
    if (length == 0) {
      return false;
    }
    text.remove_prefix(length);
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
