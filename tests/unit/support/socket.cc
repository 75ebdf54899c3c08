#include "support/socket.h"

#include <cstdlib>
#include <stdexcept>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace test {

namespace {

sockaddr_in SocketAddress(const std::string& address, uint16_t port) {
  sockaddr_in result = {};
  result.sin_family = AF_INET;
  result.sin_port = htons(port);
  ::inet_pton(AF_INET, address.c_str(), &result.sin_addr);
  return result;
}

bool IsComplete(const std::string& answer) {
  const std::string lengthName = "Content-Length: ";
  const size_t headerEnd = answer.find("\r\n\r\n");
  const size_t length = answer.find(lengthName);
  if (headerEnd == std::string::npos || length > headerEnd) {
    return false;
  }
  const size_t bodyLength = std::strtoul(answer.c_str() + length + lengthName.size(), nullptr, 10);
  return answer.size() >= headerEnd + 4 + bodyLength;
}

}  // namespace

uint16_t FreePort() {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address = SocketAddress("127.0.0.1", 0);
  socklen_t size = sizeof address;
  if (::bind(fd, reinterpret_cast<sockaddr*>(&address), size) != 0 ||
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
    throw std::runtime_error("no free port");
  }
  ::close(fd);
  return ntohs(address.sin_port);
}

std::string Exchange(const std::string& address, uint16_t port, const std::string& request) {
  return Connection(address, port).Exchange(request);
}

Connection::Connection(const std::string& address, uint16_t port)
    : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_in peer = SocketAddress(address, port);
  if (::connect(fd_, reinterpret_cast<sockaddr*>(&peer), sizeof peer) != 0) {
    ::close(fd_);
    fd_ = -1;
  }
}

Connection::~Connection() {
  if (fd_ >= 0) {
    ::close(fd_);
  }
}

bool Connection::HasEnded() const {
  char next = 0;
  return ::recv(fd_, &next, sizeof next, MSG_PEEK | MSG_DONTWAIT) == 0;
}

std::string Connection::Exchange(const std::string& request) const {
  std::string answer;
  if (fd_ < 0 || ::send(fd_, request.data(), request.size(), MSG_NOSIGNAL) < 0) {
    return answer;
  }
  char buffer[4096];
  while (!IsComplete(answer)) {
    const ssize_t count = ::recv(fd_, buffer, sizeof buffer, 0);
    if (count <= 0) {
      break;
    }
    answer.append(buffer, static_cast<size_t>(count));
  }
  return answer;
}

}  // namespace test
