#include "util/descriptor.h"

#include <utility>

#include <fcntl.h>
#include <unistd.h>

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
