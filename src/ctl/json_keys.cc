#include "ctl/json_keys.h"

#include <utility>

namespace tavlo::ctl {

namespace {

constexpr const char* kBlanks = " \t\r\n\f\v";

// Goes over a text, piece by piece: texts in quotes, comments, and the brackets between them.
class KeyScanner {
 public:
  explicit KeyScanner(const std::string& text) : text_(text) {}

  std::vector<JsonKey> Scan() {
    while (at_ < text_.size()) {
      const char letter = text_[at_];
      if (letter == '"' || letter == '\'') {
        TakeText(letter);
      } else if (letter == '/') {
        SkipComment();
      } else {
        depth_ += letter == '{' || letter == '[' ? 1 : 0;
        depth_ -= letter == '}' || letter == ']' ? 1 : 0;
        ++at_;
      }
    }
    return std::move(keys_);
  }

 private:
  void TakeText(char quote) {
    const size_t begin = at_ + 1;
    size_t end = begin;
    while (end < text_.size() && text_[end] != quote) {
      end += text_[end] == '\\' ? 2U : 1U;
    }
    at_ = end + 1;
    const size_t next = text_.find_first_not_of(kBlanks, at_);
    if (depth_ == 1 && next != std::string::npos && text_[next] == ':') {
      keys_.push_back({text_.substr(begin, end - begin), begin - 1});
    }
  }

  void SkipComment() {
    const bool isLine = text_.compare(at_, 2, "//") == 0;
    const size_t end = text_.find(isLine ? "\n" : "*/", at_ + 2);
    at_ = end == std::string::npos ? text_.size() : end + (isLine ? 1 : 2);
  }

  const std::string& text_;
  size_t at_ = 0;
  int depth_ = 0;
  std::vector<JsonKey> keys_;
};

}  // namespace

std::vector<JsonKey> TopLevelKeys(const std::string& text) {
  return KeyScanner(text).Scan();
}

}  // namespace tavlo::ctl
