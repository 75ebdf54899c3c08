#include "agent/libevent_failure.h"

#include <atomic>
#include <cstdlib>

#include <unistd.h>

namespace tavlo {

namespace {

std::atomic<bool> hasStarted(false);

}  // namespace

void EndBecauseOfLibevent() {
  if (!hasStarted) {
    ::_exit(EXIT_FAILURE);
  }
  std::abort();
}

void SetStarted() {
  hasStarted = true;
}

}  // namespace tavlo
