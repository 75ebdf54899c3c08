#include "agent/listening_socket.h"

#include <cerrno>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include "util/descriptor.h"

namespace tavlo {

namespace {

constexpr int kListenBacklog = 128;

// Accepted sockets inherit the options. Without TCP_NODELAY each answer over TLS waits some 40 ms
// for the client's delayed acknowledgement.
bool SetSocketOptions(int fd) {
  const int on = 1;
  return ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0 &&
         ::setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on) == 0 &&
         ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) == 0;
}

}  // namespace

int OpenListeningSocket(const std::string& address, uint16_t port) {
  sockaddr_in name = {};
  name.sin_family = AF_INET;
  name.sin_port = htons(port);
  if (::inet_pton(AF_INET, address.c_str(), &name.sin_addr) != 1) {
    errno = EINVAL;
    return -1;
  }
  stdext::descriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!socket.is_open() || !SetSocketOptions(socket.get()) ||
      ::bind(socket.get(), reinterpret_cast<sockaddr*>(&name), sizeof name) != 0 ||
      ::listen(socket.get(), kListenBacklog) != 0) {
    return -1;
  }
  return socket.release();
}

}  // namespace tavlo
