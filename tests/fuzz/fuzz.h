#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

/// What every target defines; `data` holds `size` arbitrary bytes.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace fuzz {

/// Ends the process, so that the input counts as a failure, unless `holds`.
inline void Require(bool holds, const char* what) {
  if (!holds) {
    std::fprintf(stderr, "does not hold: %s\n", what);
    std::abort();
  }
}

/// Takes an input apart, which must live as long.
class Input {
 public:
  Input(const uint8_t* data, size_t size) : rest_(reinterpret_cast<const char*>(data), size) {}

  bool IsAtEnd() const { return rest_.empty(); }

  /// The next byte; 0 at the end.
  unsigned char Byte() {
    const unsigned char byte = rest_.empty() ? 0 : static_cast<unsigned char>(rest_[0]);
    Take(1);
    return byte;
  }

  /// Up to `count` bytes.
  std::string Take(size_t count) {
    const std::string_view taken = rest_.substr(0, count);
    rest_.remove_prefix(taken.size());
    return std::string(taken);
  }

  /// What comes before the next line feed, or all the rest.
  std::string Line() {
    const size_t end = rest_.find('\n');
    std::string line = Take(end);
    Take(end == rest_.npos ? 0 : 1);
    return line;
  }

  std::string Rest() const { return std::string(rest_); }

 private:
  std::string_view rest_;
};

}  // namespace fuzz
