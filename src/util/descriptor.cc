#include "util/descriptor.h"

#include <fcntl.h>
#include <unistd.h>

namespace stdext {

void descriptor::reset(int fd) {
  close();
  fd_ = fd;
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
