// Any bytes as a client's requests: whether they come in one piece or in many makes no difference,
// and each request ends where a second, simple reader says.

#include "agent/request_framing.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>

#include <strings.h>

#include "fuzz/fuzz.h"

namespace {

using tavlo::RequestFraming;

constexpr size_t kNone = std::string::npos;

// The line that begins there, without its end; false when it has not come whole.
bool NextLine(const std::string& text, size_t* at, std::string* line) {
  const size_t end = text.find('\n', *at);
  if (end == kNone) {
    return false;
  }
  *line = text.substr(*at, end - *at);
  if (!line->empty() && line->back() == '\r') {
    line->pop_back();
  }
  *at = end + 1;
  return true;
}

size_t EndOfChunks(const std::string& text, size_t at) {
  std::string line;
  while (NextLine(text, &at, &line)) {
    const size_t length = std::strtoul(line.c_str(), nullptr, 16);
    if (length > text.size() - at) {
      return kNone;
    }
    at += length;
    if (!NextLine(text, &at, &line)) {
      return kNone;
    }
    if (length == 0) {
      return at;
    }
  }
  return kNone;
}

// The first byte behind a request without a fault; kNone while it has not come whole.
size_t EndOfRequest(const std::string& text) {
  size_t at = 0;
  size_t length = 0;
  bool isChunked = false;
  std::string line;
  NextLine(text, &at, &line);
  for (;;) {
    if (!NextLine(text, &at, &line)) {
      return kNone;
    }
    if (line.empty()) {
      break;
    }
    const size_t colon = line.find(':');
    const std::string name = line.substr(0, colon);
    if (::strcasecmp(name.c_str(), "Content-Length") == 0) {
      length = std::strtoul(line.c_str() + colon + 1, nullptr, 10);
    }
    isChunked = isChunked || ::strcasecmp(name.c_str(), "Transfer-Encoding") == 0;
  }
  if (isChunked) {
    return EndOfChunks(text, at);
  }
  return length <= text.size() - at ? at + length : kNone;
}

// What is said of a text: what is wrong, where that begins or the request ends, how many lines.
struct Outcome {
  const char* fault;
  size_t end;
  size_t lines;

  bool operator==(const Outcome& other) const {
    return fault == other.fault && end == other.end && lines == other.lines;
  }
};

template <typename NextLength>
Outcome Read(const std::string& text, NextLength nextLength) {
  RequestFraming framing;
  size_t taken = 0;
  while (taken < text.size() && framing.Fault() == nullptr && !framing.IsWhole()) {
    const size_t length = std::min(nextLength(), text.size() - taken);
    const std::string piece = text.substr(taken, length);
    framing.Take(piece.data(), piece.size());
    taken += length;
  }
  if (framing.Fault() != nullptr) {
    fuzz::Require(framing.Unsound() <= taken, "what is unsound has been taken");
    return {framing.Fault(), taken - framing.Unsound(), framing.Lines()};
  }
  return {nullptr, framing.IsWhole() ? taken : kNone, framing.Lines()};
}

}  // namespace

// The first byte says in which pieces the rest comes.
int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Input input(data, size);
  const size_t longest = 1 + input.Byte();
  const std::string text = input.Rest();

  const Outcome outcome = Read(text, [] { return size_t{1}; });
  if (outcome.fault == nullptr) {
    fuzz::Require(outcome.end == EndOfRequest(text), "a request ends where it ends");
  }
  const bool isWhole = outcome.fault == nullptr && outcome.end != kNone;
  const std::string looked = isWhole ? text.substr(0, outcome.end) : text;
  size_t next = 0;
  fuzz::Require(Read(looked, [&] { return next = next * 7 % longest + 1; }) == outcome,
                "pieces make no difference");
  fuzz::Require(Read(looked, [&] { return looked.size(); }) == outcome, "nor does one piece");

  RequestFraming framing;
  framing.Take(text.data(), text.size());
  fuzz::Require(framing.Fault() == outcome.fault && framing.IsWhole() == isWhole &&
                    framing.Lines() == outcome.lines,
                "what lies behind a request makes no difference");
  return 0;
}
