#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

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

/// Takes an input apart.
class Input {
 public:
  Input(const uint8_t* data, size_t size) : rest_(reinterpret_cast<const char*>(data), size) {}

  /// The next byte; 0 at the end.
  unsigned char Byte() {
    const std::string byte = Take(1);
    return byte.empty() ? 0 : static_cast<unsigned char>(byte[0]);
  }

  /// Up to `count` bytes.
  std::string Take(size_t count) {
    std::string taken = rest_.substr(0, count);
    rest_.erase(0, count);
    return taken;
  }

  /// What comes before the next line feed, or all the rest.
  std::string Line() {
    const size_t end = rest_.find('\n');
    std::string line = Take(end);
    Take(end == rest_.npos ? 0 : 1);
    return line;
  }

  const std::string& Rest() const { return rest_; }

 private:
  std::string rest_;
};

}  // namespace fuzz
