// Any bytes on the TLS listener: as a TLS record, or as a request inside TLS. Nothing may reach the
// destination that does not carry the pairing key.

#include "fuzz/fuzz.h"
#include "fuzz/http_face.h"

namespace {

// How many inputs ago there was one that had the key. A request may be forwarded when its client
// has gone.
std::atomic<int> inputsSinceKey{1000};

std::string CheckAndAnswer(const std::string& /*requestLine*/) {
  fuzz::Require(inputsSinceKey < 4, "only what carries the key is let through");
  return "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok";
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const uint16_t port = fuzz::RunHost(true, {CheckAndAnswer});
  fuzz::Input input(data, size);
  const bool raw = input.Byte() == 'R';
  const std::string& bytes = input.Rest();
  inputsSinceKey = !raw && bytes.find(fuzz::kPairingKey) != bytes.npos ? 0 : inputsSinceKey + 1;
  const std::string answer = raw ? fuzz::Exchange(port, bytes) : fuzz::ExchangeInTls(port, bytes);
  fuzz::Require(raw || answer.empty() || answer.compare(0, 5, "HTTP/") == 0, "an answer is HTTP");
  return 0;
}
