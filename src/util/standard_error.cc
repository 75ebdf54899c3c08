#include "util/standard_error.h"

#include <atomic>

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include "util/descriptor.h"
#include "util/retry.h"

namespace stdext {

namespace {

constexpr int kPatienceMs = 100;

bool IsPipeOrTerminal(int fd) {
  struct stat info = {};
  return ::fstat(fd, &info) == 0 && (S_ISFIFO(info.st_mode) || ::isatty(fd) == 1);
}

}  // namespace

bool standard_error_takes_a_line() {
  static std::atomic<bool> isStuck(false);
  pollfd entry = {STDERR_FILENO, POLLOUT, 0};
  const int patience = isStuck ? 0 : kPatienceMs;
  // An error is for the one who writes.
  isStuck = retry_on_interrupt([&] { return ::poll(&entry, 1, patience); }) == 0;
  return !isStuck;
}

void own_standard_error() {
  if (!IsPipeOrTerminal(STDERR_FILENO)) {
    return;
  }
  const descriptor own(retry_on_interrupt([] {
    return ::open("/proc/self/fd/2", O_WRONLY | O_APPEND | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  }));
  if (own.is_open()) {
    retry_on_interrupt([&own] { return ::dup2(own.get(), STDERR_FILENO); });
  }
}

}  // namespace stdext
