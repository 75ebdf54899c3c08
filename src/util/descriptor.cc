#include "util/descriptor.h"

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

}  // namespace stdext
