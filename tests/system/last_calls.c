// Preloaded, tells on standard error of the two calls that a process ends with.

#include <sys/syscall.h>
#include <unistd.h>

static void tell(const char* name, size_t size) {
  if (write(STDERR_FILENO, name, size) < 0) {
    return;
  }
}

void closelog(void) {
  tell("closelog\n", 9);
}

void _exit(int status) {
  tell("_exit\n", 6);
  for (;;) {
    syscall(SYS_exit_group, status);
  }
}
