// What a hook script writes on its standard error, in pieces of any size.

#include "fuzz/fuzz.h"
#include "hooks/secure_exec.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  constexpr size_t kReadSize = 1024;
  constexpr size_t kLongestRest = 1024;
  fuzz::Input input(data, size);
  std::string buffer;
  while (!input.Rest().empty()) {
    const size_t pieceSize = 1 + input.Byte() * kReadSize / 256;
    buffer += input.Take(pieceSize);
    Orx::SecureExecStderr(buffer, false, 1);
    fuzz::Require(buffer.find('\n') == buffer.npos, "no whole line is left");
    fuzz::Require(buffer.size() <= kLongestRest, "the rest does not grow");
  }
  Orx::SecureExecStderr(buffer, true, 1);
  fuzz::Require(buffer.empty(), "at the end nothing is left");
  return 0;
}
