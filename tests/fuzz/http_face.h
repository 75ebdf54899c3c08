#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include <sys/types.h>

struct ssl_st;

namespace fuzz {

/// The pairing key of the TLS host.
extern const std::string kPairingKey;

/// What the destination of a host does: it is told the first line of a request, "GET /uri
/// HTTP/1.1", and answers with these bytes. With `closes` it then ends the connection.
struct Destination {
  std::function<std::string(const std::string& requestLine)> answer;
  bool closes = false;
};

/// Runs one AgentHost, plain or TLS, and its destination on threads of this process, and returns
/// the host's port on 127.0.0.1. Called once in a process.
uint16_t RunHost(bool tls, const Destination& destination);

/// Sends the bytes over a connection of its own, ends it in that direction, and returns what comes
/// back until the host ends it too. A host that does not is a failure.
std::string Exchange(uint16_t port, const std::string& bytes);

/// A connection inside TLS, which ends with the object. A host that does not answer within seconds
/// is a failure.
class TlsConnection {
 public:
  explicit TlsConnection(uint16_t port);
  ~TlsConnection();
  TlsConnection(const TlsConnection&) = delete;
  TlsConnection& operator=(const TlsConnection&) = delete;

  void Write(const std::string& bytes);

  /// Waits for the next piece; empty when the host has ended the connection.
  std::string Read();

  /// Waits for nothing. To be called last.
  std::string ReadWhatIsThere();

 private:
  int fd_;
  std::unique_ptr<ssl_st, void (*)(ssl_st*)> tls_;
};

}  // namespace fuzz
