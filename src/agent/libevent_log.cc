#include "agent/libevent_log.h"

#include <cerrno>
#include <cstdlib>

#include <event2/event.h>

#include "util/log.h"

namespace tavlo {

namespace {

constexpr const char* kFunction = "libevent";

// libevent's callers go on to look at errno.
void OnMessage(int /*severity*/, const char* text) {
  const int saved = errno;
  Orx::Log::Message2(Orx::Log::kDebug, kFunction, "%s", text);
  errno = saved;
}

void OnFatalError(int code) {
  Orx::Log::Message2(Orx::Log::kError, kFunction, "Fatal error %d", code);
  std::abort();
}

}  // namespace

void RouteLibeventLog() {
  event_set_log_callback(OnMessage);
  event_set_fatal_callback(OnFatalError);
}

}  // namespace tavlo
