#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tavlo::ctl {

/// What texts made by a format for printf look like: its literals in their order, any values
/// between them.
class TextPattern {
 public:
  /// Knows conversions without a width or a precision: %s, %d, %zu, %lld.
  explicit TextPattern(std::string_view format);

  /// Whether the text may have been made by the format; then `values` are what stands between the
  /// literals, parts of `text`, each as short as it can be, but for the last one.
  bool Match(std::string_view text, std::vector<std::string_view>* values) const;

  /// What each such text begins with.
  const std::string& Beginning() const { return literals_.front(); }

 private:
  std::vector<std::string> literals_;  // one more than values; the first or the last may be empty
};

/// A value that is a number without a sign, of at most `largest`.
std::optional<int64_t> NumberIn(std::string_view value, int64_t largest);

}  // namespace tavlo::ctl
