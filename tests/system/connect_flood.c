// Connects from SOURCE to 127.0.0.1:PORT as fast as it can, RATE times a second at most unless that
// is 0, sends TEXT over each connection, and keeps the latest KEPT of them, until it is killed.

#include <arpa/inet.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

// Leaves nothing behind at this side: its ports are needed again at once.
static void drop(int fd) {
  const struct linger at_once = {.l_onoff = 1, .l_linger = 0};
  setsockopt(fd, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
  close(fd);
}

static struct sockaddr_in address(const char* host, int port) {
  struct sockaddr_in made = {.sin_family = AF_INET, .sin_port = htons((uint16_t)port)};
  inet_pton(AF_INET, host, &made.sin_addr);
  return made;
}

static void allow_many_descriptors(void) {
  struct rlimit limit;
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

int main(int argc, char** argv) {
  if (argc != 6) {
    return 2;
  }
  const struct sockaddr_in source = address(argv[1], 0);
  const struct sockaddr_in target = address("127.0.0.1", atoi(argv[2]));
  const size_t kept = (size_t)atoi(argv[3]);
  const long rate = atol(argv[4]);
  const char* const text = argv[5];
  int* const latest = calloc(kept, sizeof *latest);
  if (latest == NULL) {
    return 1;
  }
  allow_many_descriptors();
  for (size_t next = 0;; next = (next + 1) % kept) {
    if (latest[next] > 0) {
      drop(latest[next]);
    }
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (bind(fd, (const struct sockaddr*)&source, sizeof source) == 0 &&
        connect(fd, (const struct sockaddr*)&target, sizeof target) == 0 && *text != '\0') {
      (void)!send(fd, text, strlen(text), MSG_NOSIGNAL);
    }
    latest[next] = fd;
    if (rate > 0) {
      const struct timespec pause = {.tv_nsec = 1000000000L / rate};
      nanosleep(&pause, NULL);
    }
  }
}
