// Any bytes as the destination's answer: the client gets an answer all the same.

#include <mutex>

#include "fuzz/fuzz.h"
#include "fuzz/http_face.h"

namespace {

std::mutex mutex;
std::string nextAnswer;  // guarded by `mutex`

std::string Answer(const std::string& /*requestLine*/) {
  const std::lock_guard<std::mutex> lock(mutex);
  return nextAnswer;
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const uint16_t port = fuzz::RunHost(false, {Answer, true});
  {
    const std::lock_guard<std::mutex> lock(mutex);
    nextAnswer.assign(reinterpret_cast<const char*>(data), size);
  }
  const std::string answer = fuzz::Exchange(port, "GET /api/version HTTP/1.1\r\n\r\n");
  fuzz::Require(answer.compare(0, 9, "HTTP/1.1 ") == 0, "the client gets an answer");
  return 0;
}
