// Linked into the daemon in AddressSanitizer builds only. The daemon ends by `_exit`, under its
// running threads, which would skip the search for leaks.

#include <sanitizer/lsan_interface.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

// A child that could not execute its program ends here too, and owns nothing.
const pid_t kDaemon = ::getpid();

}  // namespace

extern "C" void _exit(int status) {
  if (::getpid() == kDaemon) {
    __lsan_do_leak_check();
  }
  ::syscall(SYS_exit_group, status);
  __builtin_unreachable();
}
