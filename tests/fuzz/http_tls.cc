// Any bytes on the TLS listener: as a TLS record, or as a request inside TLS. Nothing may reach the
// destination that does not carry the pairing key.

#include "fuzz/fuzz.h"
#include "fuzz/http_face.h"

namespace {

// Whether the request that is under way may have the key.
std::atomic<bool> mayHaveKey{false};

const std::string kLastRequestLine = "GET /api/last HTTP/1.1";

std::string CheckAndAnswer(const std::string& requestLine) {
  fuzz::Require(mayHaveKey || requestLine == kLastRequestLine,
                "only what carries the key is let through");
  return "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok";
}

// The whole answer; empty when the host had ended the connection.
std::string AskLast(fuzz::TlsConnection* connection) {
  connection->Write(kLastRequestLine + "\r\nPairingKey: " + fuzz::kPairingKey + "\r\n\r\n");
  std::string answer;
  std::string part;
  do {
    part = connection->Read();
    answer += part;
  } while (!part.empty() && answer.find("\r\n\r\nok") == answer.npos);
  return answer;
}

// The host forwards requests in their order: when this one is answered, it is through with all that
// it had read before.
void WaitForHost(uint16_t port) {
  static auto connection = std::make_unique<fuzz::TlsConnection>(port);
  std::string answer = AskLast(connection.get());
  if (answer.empty()) {
    // Idle for too long, between two runs.
    connection = std::make_unique<fuzz::TlsConnection>(port);
    answer = AskLast(connection.get());
  }
  fuzz::Require(answer.compare(0, 12, "HTTP/1.1 200") == 0, "what has the key is let through");
}

std::string Ask(uint16_t port, const std::string& bytes) {
  fuzz::TlsConnection connection(port);
  connection.Write(bytes);
  // What comes right after a handshake is read in a later turn of the loop.
  WaitForHost(port);
  WaitForHost(port);
  return connection.ReadWhatIsThere();
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const uint16_t port = fuzz::RunHost(true, {CheckAndAnswer});
  fuzz::Input input(data, size);
  const bool raw = input.Byte() == 'R';
  const std::string bytes = input.Rest();
  if (raw) {
    fuzz::Exchange(port, bytes);
    return 0;
  }
  mayHaveKey = bytes.find(fuzz::kPairingKey) != bytes.npos;
  const std::string answer = Ask(port, bytes);
  if (mayHaveKey) {
    // A second request of the same input comes up when the first one is answered.
    WaitForHost(port);
    WaitForHost(port);
    mayHaveKey = false;
  }
  fuzz::Require(answer.empty() || answer.compare(0, 5, "HTTP/") == 0, "an answer is HTTP");
  return 0;
}
