#include "util/close_on_exec.h"

#include <fcntl.h>

namespace stdext {

std::mutex& exec_mutex() {
  static std::mutex mutex;
  return mutex;
}

void set_close_on_exec(int fd) {
  if (fd >= 0) {
    ::fcntl(fd, F_SETFD, FD_CLOEXEC);
  }
}

}  // namespace stdext
