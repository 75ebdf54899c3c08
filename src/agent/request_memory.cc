#include "agent/request_memory.h"

#include <array>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>

#include <event2/buffer.h>
#include <event2/http.h>
#include <event2/http_struct.h>

#include "agent/headers.h"

namespace tavlo {

namespace {

// libevent looks at the first two once the answer has been made.
constexpr std::array<const char*, 4> kNeededHeaders = {"Connection", "Proxy-Connection",
                                                       "PairingKey", "Expect"};

// libevent has the URI as it came and in parts, the forwarding has it with the prefix.
constexpr size_t kUriCopies = 3;

}  // namespace

size_t SizeOf(evhttp_request* request) {
  return evbuffer_get_length(evhttp_request_get_input_buffer(request)) +
         kUriCopies * std::strlen(request->uri);
}

void JoinBody(evhttp_request* request) {
  evbuffer_pullup(evhttp_request_get_input_buffer(request), -1);
}

void DropHeaders(evhttp_request* request) {
  evkeyvalq* const headers = evhttp_request_get_input_headers(request);
  std::array<std::optional<std::string>, kNeededHeaders.size()> values;
  for (size_t i = 0; i < kNeededHeaders.size(); ++i) {
    const char* const value = FindHeader(headers, kNeededHeaders[i]);
    if (value != nullptr) {
      values[i] = value;
    }
  }
  evhttp_clear_headers(headers);
  for (size_t i = 0; i < kNeededHeaders.size(); ++i) {
    if (values[i]) {
      evhttp_add_header(headers, kNeededHeaders[i], values[i]->c_str());
    }
  }
}

void DropBodyAndUri(evhttp_request* request) {
  evbuffer* const body = evhttp_request_get_input_buffer(request);
  evbuffer_drain(body, evbuffer_get_length(body));
  if (request->uri_elems != nullptr) {
    evhttp_uri_free(request->uri_elems);
    request->uri_elems = nullptr;
  }
  std::free(request->uri);  // what libevent allocates with, in whatever way
  request->uri = nullptr;
}

}  // namespace tavlo
