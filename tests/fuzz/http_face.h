#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>

#include <sys/types.h>

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

/// The same, inside TLS.
std::string ExchangeInTls(uint16_t port, const std::string& bytes);

}  // namespace fuzz
