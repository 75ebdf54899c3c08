#include "hooks/raii_pipe.h"

#include <cerrno>

#include <fcntl.h>
#include <unistd.h>

#include "util/error_text.h"
#include "util/log.h"
#include "util/retry.h"

namespace Orx {

namespace {

int CloseDescriptor(int* fd) {
  if (*fd == -1) {
    return 0;
  }
  // Retried for kernels that keep an interrupted one open; Linux interrupts no pipe's.
  const int result = stdext::retry_on_interrupt([fd] { return ::close(*fd); });
  *fd = -1;
  return result;
}

}  // namespace

RaiiPipe::~RaiiPipe() {
  CloseReadFd();
  CloseWriteFd();
}

int RaiiPipe::OpenPipe() {
  int ends[2] = {-1, -1};
  if (::pipe2(ends, O_CLOEXEC) != 0) {
    ORX_LOG(Log::kError, "pipe2 failed: %s", stdext::strerror(errno).c_str());
    return -1;
  }
  readFd = ends[0];
  writeFd = ends[1];
  return 0;
}

int RaiiPipe::CloseWriteFd() {
  return CloseDescriptor(&writeFd);
}

void RaiiPipe::CloseReadFd() {
  CloseDescriptor(&readFd);
}

}  // namespace Orx
