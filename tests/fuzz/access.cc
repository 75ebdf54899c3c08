// Who is let in: the list of the plain listener and the comparison of keys.

#include "agent/access.h"

#include <array>

#include "fuzz/fuzz.h"

namespace {

bool IsOpen(const std::string& uri, evhttp_cmd_type method) {
  if (uri == "/api/version") {
    return method == EVHTTP_REQ_GET;
  }
  if (uri.size() < 7 || uri.compare(0, 5, "/api/") != 0 || (uri[5] != '1' && uri[5] != '2') ||
      uri[6] != '/') {
    return false;
  }
  const std::string name = uri.substr(7);
  return method == EVHTTP_REQ_GET ? name == "router-info"
                                  : method == EVHTTP_REQ_PATCH &&
                                        (name == "router-attribution-id" || name == "router-ref");
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Input input(data, size);
  const auto method = static_cast<evhttp_cmd_type>(1 << (input.Byte() % 9));
  const std::string first = input.Line();
  const std::string second = input.Rest();
  fuzz::Require(tavlo::ApiRequestSupported(first, method) == IsOpen(first, method),
                "the list is open for what is on it");
  fuzz::Require(tavlo::IsSameKey(first, second) == (first == second), "keys compare as texts");
  fuzz::Require(tavlo::IsSameKey(first, first), "a key is itself");
  return 0;
}
