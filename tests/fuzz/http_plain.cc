// Any bytes on the plain listener. Only what is on its list may reach the destination.

#include "agent/access.h"
#include "fuzz/fuzz.h"
#include "fuzz/http_face.h"

namespace {

std::string CheckAndAnswer(const std::string& requestLine) {
  const size_t blank = requestLine.find(' ');
  const std::string method = requestLine.substr(0, blank);
  const std::string uri = requestLine.substr(blank + 1, requestLine.rfind(' ') - blank - 1);
  fuzz::Require(method == "GET" || method == "PATCH", "only these methods are let through");
  fuzz::Require(
      tavlo::ApiRequestSupported(uri, method == "GET" ? EVHTTP_REQ_GET : EVHTTP_REQ_PATCH),
      "only what is on the list is let through");
  return "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok";
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const uint16_t port = fuzz::RunHost(false, {CheckAndAnswer});
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  const std::string answer = fuzz::Exchange(port, bytes);
  fuzz::Require(answer.empty() || answer.compare(0, 5, "HTTP/") == 0, "an answer is HTTP");
  return 0;
}
