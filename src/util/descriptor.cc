#include "util/descriptor.h"

#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "util/retry.h"

namespace stdext {

int descriptor::release() {
  return std::exchange(fd_, -1);
}

bool descriptor::close() {
  if (fd_ < 0) {
    return true;
  }
  const int result = ::close(fd_);
  fd_ = -1;
  return result == 0;
}

int open_only_here(const char* path, int flags, mode_t mode) {
  // A FIFO that nobody reads is not waited for, and a terminal does not become the daemon's own.
  constexpr int kFlags = O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
  const int fd = retry_on_interrupt([=] { return ::open(path, kFlags | flags, mode); });
  if (fd < 0) {
    return -1;
  }
  struct stat info = {};
  if (::fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && info.st_nlink <= 1) {
    return fd;
  }
  ::close(fd);
  errno = S_ISREG(info.st_mode) ? EMLINK : ENXIO;
  return -1;
}

void open_missing_standard_descriptors() {
  int fd = -1;
  do {
    fd = ::open("/dev/null", O_RDWR);  // takes the lowest number that is free
  } while (fd >= 0 && fd <= STDERR_FILENO);
  if (fd >= 0) {
    ::close(fd);
  }
}

}  // namespace stdext
