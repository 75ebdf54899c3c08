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

bool IsPipeOrTerminal(const struct stat& info) {
  return S_ISFIFO(info.st_mode) || ::isatty(STDERR_FILENO) == 1;
}

// A file, or /dev/null, takes a line whenever it comes.
bool MayWait(const struct stat& info) {
  return IsPipeOrTerminal(info) || S_ISSOCK(info.st_mode);
}

std::atomic<bool> mayWait(true);

}  // namespace

bool standard_error_takes_a_line() {
  static std::atomic<bool> isStuck(false);
  if (!mayWait) {
    return true;
  }
  pollfd entry = {STDERR_FILENO, POLLOUT, 0};
  const int patience = isStuck ? 0 : kPatienceMs;
  // An error is for the one who writes.
  isStuck = retry_on_interrupt([&] { return ::poll(&entry, 1, patience); }) == 0;
  return !isStuck;
}

void own_standard_error() {
  struct stat info = {};
  if (::fstat(STDERR_FILENO, &info) != 0) {
    return;
  }
  mayWait = MayWait(info);
  if (!IsPipeOrTerminal(info)) {
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
