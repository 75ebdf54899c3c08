#include "ctl/text_pattern.h"

#include <charconv>
#include <system_error>

#include "ctl/text.h"

namespace tavlo::ctl {

TextPattern::TextPattern(std::string_view format) {
  constexpr std::string_view kSizes = "hlz";
  literals_.emplace_back();
  for (size_t i = 0; i < format.size(); ++i) {
    if (format[i] != '%') {
      literals_.back() += format[i];
      continue;
    }
    i = format.find_first_not_of(kSizes, i + 1);  // the letter of the conversion
    literals_.emplace_back();
    if (i == format.npos) {
      return;
    }
  }
}

bool TextPattern::Match(std::string_view text, std::vector<std::string_view>* values) const {
  const std::string& first = literals_.front();
  const std::string& last = literals_.back();
  if (!BeginsWith(text, first)) {
    return false;
  }
  values->clear();
  text.remove_prefix(first.size());
  if (literals_.size() == 1) {
    return text.empty();
  }
  for (size_t i = 1; i + 1 < literals_.size(); ++i) {
    const size_t end = text.find(literals_[i]);
    if (end == text.npos) {
      return false;
    }
    values->push_back(text.substr(0, end));
    text.remove_prefix(end + literals_[i].size());
  }
  if (!EndsWith(text, last)) {
    return false;
  }
  values->push_back(text.substr(0, text.size() - last.size()));
  return true;
}

std::optional<int64_t> NumberIn(std::string_view value, int64_t largest) {
  int64_t number = 0;
  const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), number);
  const bool isNumber = error == std::errc() && end == value.data() + value.size() && number >= 0 &&
                        number <= largest && value.front() != '-';
  return isNumber ? std::optional<int64_t>(number) : std::nullopt;
}

}  // namespace tavlo::ctl
