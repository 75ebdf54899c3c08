#include "support/socket.h"

#include <cstdlib>
#include <random>
#include <stdexcept>
#include <string_view>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace test {

namespace {

// As in tests/system/support/ports.py: below the range from which the kernel picks the ports of
// outgoing connections, and with the same locks, so that no test gets another one's port.
constexpr int kFirstPort = 12000;
constexpr int kLastPort = 31999;
constexpr const char* kPortLocks = "/tmp/tavlo-test-ports";

sockaddr_in SocketAddress(const std::string& address, uint16_t port) {
  sockaddr_in result = {};
  result.sin_family = AF_INET;
  result.sin_port = htons(port);
  ::inet_pton(AF_INET, address.c_str(), &result.sin_addr);
  return result;
}

bool IsComplete(const std::string& answer) {
  constexpr std::string_view lengthName = "Content-Length: ";
  const size_t headerEnd = answer.find("\r\n\r\n");
  const size_t length = answer.find(lengthName);
  if (headerEnd == std::string::npos || length > headerEnd) {
    return false;
  }
  const size_t bodyLength = std::strtoul(answer.c_str() + length + lengthName.size(), nullptr, 10);
  return answer.size() >= headerEnd + 4 + bodyLength;
}

// The port stays ours as long as the lock file is open: to the end of this process.
bool Reserve(uint16_t port) {
  const std::string path = kPortLocks + ("/" + std::to_string(port));
  const int lock = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
  const int probe = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const sockaddr_in address = SocketAddress("127.0.0.1", port);
  const bool isFree =
      ::flock(lock, LOCK_EX | LOCK_NB) == 0 &&
      ::bind(probe, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  ::close(probe);
  if (!isFree) {
    ::close(lock);
  }
  return isFree;
}

}  // namespace

uint16_t FreePort() {
  ::mkdir(kPortLocks, 0777);
  std::random_device random;
  std::uniform_int_distribution<int> anyPort(kFirstPort, kLastPort);
  for (int attempt = 0; attempt < 1000; ++attempt) {
    const auto port = static_cast<uint16_t>(anyPort(random));
    if (Reserve(port)) {
      return port;
    }
  }
  throw std::runtime_error("no free port");
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
