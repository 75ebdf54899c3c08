/* Preloaded into the daemon by test_name_lookup.py, which builds it: every name is 127.0.0.1, and
 * no look-up leaves the machine. As long as the file named in GATE exists, a look-up waits, and
 * says so with another file whose name is that one's and ".waits". One whose name ends in ".pass"
 * lets a single one through. With GATE_FAILS nobody answers behind the gate. */

#define _GNU_SOURCE
#include <dlfcn.h>
#include <fcntl.h>
#include <netdb.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

typedef int look_up(const char*, const char*, const struct addrinfo*, struct addrinfo**);

int getaddrinfo(const char* name, const char* service, const struct addrinfo* hints,
                struct addrinfo** result) {
  (void)name;
  const char* const gate = getenv("GATE");
  look_up* const original = (look_up*)dlsym(RTLD_NEXT, "getaddrinfo");
  if (gate == NULL || original == NULL) {
    abort();
  }
  char waits[4096];
  char pass[4096];
  snprintf(waits, sizeof waits, "%s.waits", gate);
  snprintf(pass, sizeof pass, "%s.pass", gate);
  while (access(gate, F_OK) == 0 && unlink(pass) != 0) {
    close(open(waits, O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    usleep(10000);
  }
  if (getenv("GATE_FAILS") != NULL) {
    return EAI_AGAIN;
  }
  return original("127.0.0.1", service, hints, result);
}
