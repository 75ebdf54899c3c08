#include "agent/libevent_log.h"

#include <cerrno>

#include <event2/event.h>

#include "agent/libevent_failure.h"
#include "util/error_text.h"
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
  const int errnum = errno;  // libevent's, mostly
  Orx::Log::Message2(Orx::Log::kError, kFunction, "Fatal error %d: %s", code,
                     stdext::error_number_and_text(errnum).c_str());
  EndBecauseOfLibevent();
}

}  // namespace

void RouteLibeventLog() {
  event_set_log_callback(OnMessage);
  event_set_fatal_callback(OnFatalError);
}

}  // namespace tavlo
