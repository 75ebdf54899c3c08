#include "agent/access.h"

#include <algorithm>
#include <array>

#include <openssl/crypto.h>

namespace tavlo {

namespace {

struct Endpoint {
  evhttp_cmd_type method;
  const char* uri;
};

constexpr std::array<Endpoint, 7> kPlainEndpoints = {{
    {EVHTTP_REQ_GET, "/api/version"},
    {EVHTTP_REQ_GET, "/api/1/router-info"},
    {EVHTTP_REQ_GET, "/api/2/router-info"},
    {EVHTTP_REQ_PATCH, "/api/1/router-attribution-id"},
    {EVHTTP_REQ_PATCH, "/api/2/router-attribution-id"},
    {EVHTTP_REQ_PATCH, "/api/1/router-ref"},
    {EVHTTP_REQ_PATCH, "/api/2/router-ref"},
}};

}  // namespace

bool ApiRequestSupported(const std::string& uri, evhttp_cmd_type method) {
  return std::any_of(kPlainEndpoints.begin(), kPlainEndpoints.end(), [&](const Endpoint& endpoint) {
    return endpoint.method == method && endpoint.uri == uri;
  });
}

bool IsSameKey(std::string_view expected, std::string_view given) {
  return expected.size() == given.size() &&
         CRYPTO_memcmp(expected.data(), given.data(), expected.size()) == 0;
}

}  // namespace tavlo
