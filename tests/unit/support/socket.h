#pragma once

#include <cstdint>
#include <string>

namespace test {

/// A TCP port of 127.0.0.1 that no other test has or gets until this process ends.
uint16_t FreePort();

/// Connects, sends `request` and returns all that comes back until the peer closes or, when it
/// keeps the connection, until one answer with a Content-Length is complete. Empty when the
/// connection is refused.
std::string Exchange(const std::string& address, uint16_t port, const std::string& request);

/// A client connection that is kept for several exchanges.
class Connection {
 public:
  Connection(const std::string& address, uint16_t port);
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  bool IsOpen() const { return fd_ >= 0; }

  /// Whether the peer has ended it; nothing must be left to read.
  bool HasEnded() const;

  std::string Exchange(const std::string& request) const;

 private:
  int fd_;
};

}  // namespace test
