// Any bytes on the TLS listener: as a TLS record, or as a request inside TLS. Nothing may reach the
// destination that does not carry the pairing key.

#include "fuzz/fuzz.h"
#include "fuzz/http_face.h"

namespace {

// Whether the request that is under way may have the key.
std::atomic<bool> mayHaveKey{false};

const std::string kRequestWithKey =
    "GET /api/last HTTP/1.1\r\nConnection: close\r\nPairingKey: " + fuzz::kPairingKey + "\r\n\r\n";

std::string CheckAndAnswer(const std::string& /*requestLine*/) {
  fuzz::Require(mayHaveKey, "only what carries the key is let through");
  return "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok";
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const uint16_t port = fuzz::RunHost(true, {CheckAndAnswer});
  fuzz::Input input(data, size);
  const bool raw = input.Byte() == 'R';
  const std::string bytes = input.Rest();
  mayHaveKey = !raw && bytes.find(fuzz::kPairingKey) != bytes.npos;
  const std::string answer = raw ? fuzz::Exchange(port, bytes) : fuzz::ExchangeInTls(port, bytes);
  fuzz::Require(raw || answer.empty() || answer.compare(0, 5, "HTTP/") == 0, "an answer is HTTP");
  if (mayHaveKey) {
    // A request may be forwarded when its client has gone already; then it is before this one.
    fuzz::Require(fuzz::ExchangeInTls(port, kRequestWithKey).compare(0, 12, "HTTP/1.1 200") == 0,
                  "what has the key is let through");
    mayHaveKey = false;
  }
  return 0;
}
