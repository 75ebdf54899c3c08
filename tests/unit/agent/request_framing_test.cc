#include "agent/request_framing.h"

#include <functional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

using namespace std::string_literals;

namespace {

using tavlo::RequestFraming;

constexpr size_t kNotWhole = std::string::npos;

struct Outcome {
  std::string fault;
  size_t end = kNotWhole;  // the first byte behind the request, or of the line with the fault
  size_t lines = 0;

  bool operator==(const Outcome& other) const {
    return fault == other.fault && end == other.end && lines == other.lines;
  }
};

std::ostream& operator<<(std::ostream& out, const Outcome& outcome) {
  return out << "'" << outcome.fault << "', end " << outcome.end << ", " << outcome.lines
             << " lines";
}

// Takes the text in pieces, each as long as `nextLength` says.
Outcome Read(const std::string& text, const std::function<size_t()>& nextLength) {
  RequestFraming framing;
  size_t taken = 0;
  while (taken < text.size() && framing.Fault() == nullptr && !framing.IsWhole()) {
    const std::string piece = text.substr(taken, nextLength());
    // In memory of its own, so that AddressSanitizer sees what looks beyond it.
    const std::vector<char> bytes(piece.begin(), piece.end());
    framing.Take(bytes.data(), bytes.size());
    taken += piece.size();
  }
  const std::string fault = framing.Fault() != nullptr ? framing.Fault() : "";
  if (!fault.empty()) {
    EXPECT_FALSE(framing.IsWhole());
    return {fault, taken - framing.Unsound(), framing.Lines()};
  }
  EXPECT_EQ(framing.Unsound(), 0u);
  return {fault, framing.IsWhole() ? taken : kNotWhole, framing.Lines()};
}

// Every way to read it must come to the same. What lies behind a whole request is not looked at.
Outcome Read(const std::string& text) {
  Outcome outcome = Read(text, [] { return size_t{1}; });
  EXPECT_EQ(Read(text, [&text] { return text.size(); }).fault, outcome.fault) << text;
  EXPECT_EQ(Read(text, [&text] { return text.size(); }).lines, outcome.lines) << text;
  const std::string looked = outcome.fault.empty() ? text.substr(0, outcome.end) : text;
  for (size_t split = 1; split <= looked.size(); ++split) {
    size_t next = split;
    const auto nextLength = [&] { return std::exchange(next, looked.size()); };
    EXPECT_EQ(Read(looked, nextLength), outcome) << looked << " split at " << split;
  }
  return outcome;
}

// What is wrong with a request; empty when nothing is.
std::string FaultOf(const std::string& text) {
  return Read(text).fault;
}

std::string WithHeader(const std::string& line) {
  return "POST /api/x HTTP/1.1\r\nHost: x\r\n" + line + "\r\nA: b\r\n\r\n";
}

std::string Chunked(const std::string& body) {
  return "POST /api/x HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n" + body;
}

TEST(RequestFramingHead, EndsAtTheEmptyLine) {
  const std::string head = "GET /api/version HTTP/1.1\r\nHost: x\r\n\r\n";
  EXPECT_EQ(Read(head + "GET /"), (Outcome{"", head.size(), 3}));
  EXPECT_EQ(Read(head.substr(0, head.size() - 1)), (Outcome{"", kNotWhole, 2}));
}

TEST(RequestFramingHead, MayHaveBareLineFeeds) {
  const std::string head = "GET /api/version HTTP/1.1\nHost: x\nA: b\r\n\n";
  EXPECT_EQ(Read(head + "GET /"), (Outcome{"", head.size(), 4}));
}

TEST(RequestFramingHead, MayHaveNoHeaders) {
  EXPECT_EQ(Read("GET / HTTP/1.0\r\n\r\n"), (Outcome{"", 18, 2}));
}

TEST(RequestFramingHead, IsTakenForGoodInAllTheseForms) {
  for (const std::string line : {"A:b",
                                 "A:",
                                 "A: ",
                                 "A:\t b \t",
                                 "A: b\tc",
                                 "A: b:c",
                                 "A: \x80\xff",
                                 "A: \"b;c\"",
                                 "!#$%&'*+-.^_`|~09azAZ: x",
                                 "PairingKey: \tkey ",
                                 "Expect: 100-continue",
                                 "Trailer: PairingKey",
                                 "Content-Length: 0",
                                 "content-length:\t0 ",
                                 "CONTENT-LENGTH:0",
                                 "Content-Lengt: x",
                                 "Content-Lengthy: x",
                                 "Transfer-Encodin: x",
                                 "Transfer-Encodings: x",
                                 "Content_Length: x",
                                 "TE: trailers",
                                 "A: b\r\nA: b",
                                 "PairingKeys: a\r\nPairingKey: a"}) {
    EXPECT_EQ(FaultOf(WithHeader(line)), "") << line;
  }
}

TEST(RequestFramingHead, HasNoBlankInAName) {
  for (const std::string line : {"PairingKey : key", "A\t: b", "A b: c", "Content-Length : 0"}) {
    EXPECT_EQ(FaultOf(WithHeader(line)), "A blank in a header's name") << line;
  }
}

TEST(RequestFramingHead, HasNoLineThatBeginsWithABlank) {
  for (const std::string line : {" A: b", "\tA: b", " b", " ", "\t", " : b"}) {
    EXPECT_EQ(FaultOf(WithHeader(line)), "A header line that begins with a blank") << line;
    EXPECT_EQ(FaultOf("GET /api/version HTTP/1.1\r\n" + line + "\r\n\r\n"),
              "A header line that begins with a blank");
  }
}

TEST(RequestFramingHead, HasNoControlCharacters) {
  for (int code = 0; code < 128; ++code) {
    const char c = static_cast<char>(code);
    const bool isControl = (code < 32 && c != '\t') || code == 127;
    if (c == '\n') {
      continue;
    }
    for (const std::string& before : {"A: b"s, "A:"s, "PairingKey: "s, "A: \r"s}) {
      const bool isFault = isControl || before.back() == '\r';
      EXPECT_EQ(FaultOf(WithHeader(before + c + "b")),
                isFault ? "A control character in a header" : "")
          << code;
    }
    if (isControl) {
      EXPECT_EQ(FaultOf(WithHeader("A"s + c + "b: c")), "A control character in a header's name");
      EXPECT_EQ(FaultOf(WithHeader(c + "b: c"s)), "A control character in a header's name");
      EXPECT_EQ(FaultOf(WithHeader("Content-Length: 0"s + c)), "A control character in a header");
      EXPECT_EQ(FaultOf(WithHeader("Transfer-Encoding: chunked"s + c)),
                "A control character in a header");
    }
  }
}

TEST(RequestFramingHead, HasNoCarriageReturnThatEndsNoLine) {
  for (const std::string line : {"X: y\rPairingKey: key", "X: y\r", "X: \r\ry"}) {
    EXPECT_EQ(FaultOf(WithHeader(line)), "A control character in a header") << line;
  }
  for (const std::string line : {"\r", "\rX: y", "X\r: y"}) {
    EXPECT_EQ(FaultOf(WithHeader(line)), "A control character in a header's name") << line;
  }
}

TEST(RequestFramingHead, HasOnlyTokensForNames) {
  for (int code = 33; code < 256; ++code) {
    const char c = static_cast<char>(code);
    const std::string tokens = "!#$%&'*+-.^_`|~0123456789abcdefghijklmnopqrstuvwxyz";
    const bool isToken = tokens.find(c) != tokens.npos || (c >= 'A' && c <= 'Z');
    if (c != ':' && code != 127) {
      EXPECT_EQ(FaultOf(WithHeader("A"s + c + ": b")),
                isToken ? "" : "A character that no header's name may have")
          << code;
    }
  }
}

TEST(RequestFramingHead, HasAColonAndANameInEachLine) {
  EXPECT_EQ(FaultOf(WithHeader("PairingKey")), "A header without a colon");
  EXPECT_EQ(FaultOf(WithHeader(": key")), "A header without a name");
  EXPECT_EQ(FaultOf(WithHeader(":")), "A header without a name");
}

TEST(RequestFramingHead, HasOnePairingKey) {
  EXPECT_EQ(FaultOf(WithHeader("PairingKey: a\r\nPAIRINGKEY: a")), "Two PairingKey");
  EXPECT_EQ(FaultOf(WithHeader("pairingkey: a\r\nX: y\r\nPairingKey: b")), "Two PairingKey");
}

TEST(RequestFramingHead, CountsItsLinesUpToTheFault) {
  EXPECT_EQ(Read("GET / HTTP/1.1\r\nA: b\r\nC\r\n\r\n"),
            (Outcome{"A header without a colon", 22, 3}));
}

TEST(RequestFramingRequestLine, MayHaveAnythingButANulBeforeItsVersion) {
  for (const std::string line :
       {" HTTP/1.1", "GET HTTP/1.1", "GET /a b HTTP/1.1", "GET /\x01\x7f\t HTTP/1.1",
        "GET /a\rb HTTP/1.1", "GET http://x/ HTTP/1.1", "get / HTTP/1.9", "\rGET / HTTP/1.1",
        "GET / HTTP/1.1 HTTP/1.0", "GET / HTTP/1.1  ", "GET  /  HTTP/1.0 "}) {
    EXPECT_EQ(FaultOf(line + "\r\nA: b\r\n\r\n"), "") << line;
  }
  EXPECT_EQ(FaultOf("GET /\0 HTTP/1.1\r\n\r\n"s), "A NUL in the request line");
  EXPECT_EQ(FaultOf("\0GET / HTTP/1.1\r\n\r\n"s), "A NUL in the request line");
  EXPECT_EQ(FaultOf("GET / HTTP/1.1\0\r\n\r\n"s), "A NUL in the request line");
}

TEST(RequestFramingRequestLine, EndsInAVersion) {
  for (const std::string line : {"",
                                 " ",
                                 "GET",
                                 "GET ",
                                 "GET /",
                                 "GET / HTTP/",
                                 "GET / HTTP/1",
                                 "GET / HTTP/1.",
                                 "GET / HTTP/11",
                                 "GET / HTTP/1.11",
                                 "GET / HTTP/1.1x",
                                 "GET / XHTTP/1.1",
                                 "GET / HTTP/1. 1",
                                 "GET / http/1.1",
                                 "GET / HTTP/\r1.1",
                                 "GET / HTTP/\t1.1",
                                 "GET / HTTP/+1.1",
                                 "GET / HTTP/x.1",
                                 "GET / HTTP/1.x",
                                 "GET / HTTP/1x1",
                                 "GET / HTTP/0.9",
                                 "GET / HTTP/2.0",
                                 "GET / HTTP/1.-1",
                                 "GET / HTTP/1.1\t",
                                 "GET / HTTP/1.1\r",
                                 "GET / \rHTTP/1.1",
                                 "GET HTTP/1.1 /"}) {
    EXPECT_EQ(FaultOf(line + "\r\nA: b\r\n\r\n"), "A request line without a version of HTTP/1")
        << line;
  }
}

TEST(RequestFramingRequestLine, HasAVersionThatKnowsChunks) {
  const std::string chunks = "\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n";
  EXPECT_EQ(FaultOf("POST / HTTP/1.0" + chunks), "Chunks in a version of HTTP that has none");
  EXPECT_EQ(FaultOf("POST / HTTP/1.2" + chunks), "");
  EXPECT_EQ(FaultOf("POST / HTTP/1.0\r\nContent-Length: 1\r\n\r\nx"), "");
}

TEST(RequestFramingLength, IsThatOfTheBody) {
  for (const std::string method : {"GET", "POST", "PUT", "DELETE", "PATCH"}) {
    for (const std::string length : {"5", "05", " 5 ", "\t5\t", "000000000000000005"}) {
      const std::string request =
          method + " / HTTP/1.1\r\nContent-Length:" + length + "\r\n\r\na\n\r\nb";
      EXPECT_EQ(Read(request + "more"), (Outcome{"", request.size(), 3})) << request;
      EXPECT_EQ(Read(request.substr(0, request.size() - 1)), (Outcome{"", kNotWhole, 3}));
    }
  }
}

TEST(RequestFramingLength, MayBeLargerThanAnythingThatIsRead) {
  EXPECT_EQ(Read("POST / HTTP/1.1\r\nContent-Length: 999999999999999999\r\n\r\nx"),
            (Outcome{"", kNotWhole, 3}));
}

TEST(RequestFramingLength, IsANumberAndNothingElse) {
  for (const std::string length :
       {"", "x", "-1", "+1", "0x1", "1.0", "1,", "\"1\"", "0000000000000000001",
        "1000000000000000000", "18446744073709551616", "99999999999999999999999"}) {
    EXPECT_EQ(FaultOf(WithHeader("Content-Length: " + length)),
              "A Content-Length that is no number of at most 18 digits")
        << length;
  }
  for (const std::string length : {"1 1", "0, 0", "1\t1"}) {
    EXPECT_EQ(FaultOf(WithHeader("Content-Length: " + length)),
              "More than one word about the length of the body");
  }
}

TEST(RequestFramingLength, IsGivenOnce) {
  const std::string chunked = "Transfer-Encoding: chunked";
  EXPECT_EQ(FaultOf(WithHeader("Content-Length: 1\r\ncontent-length: 1")), "Two Content-Length");
  EXPECT_EQ(FaultOf(WithHeader("Content-Length: 0\r\nContent-Length: 0")), "Two Content-Length");
  EXPECT_EQ(FaultOf(WithHeader("Content-Length: 0\r\n" + chunked)),
            "Content-Length beside Transfer-Encoding");
  EXPECT_EQ(FaultOf(WithHeader(chunked + "\r\nX: y\r\nContent-Length: 0")),
            "Content-Length beside Transfer-Encoding");
  EXPECT_EQ(FaultOf(WithHeader(chunked + "\r\n" + chunked)), "Two Transfer-Encoding");
  EXPECT_EQ(FaultOf(WithHeader(chunked + "\r\nTRANSFER-ENCODING: x")), "Two Transfer-Encoding");
}

TEST(RequestFramingEncoding, IsChunkedOrNone) {
  for (const std::string encoding : {"", "gzip", "identity", "xchunked", "chunkedx", "chunked;q=1",
                                     "\"chunked\"", "chunke", "\tchunked", " \tchunked"}) {
    EXPECT_EQ(FaultOf(WithHeader("Transfer-Encoding: " + encoding)),
              "A Transfer-Encoding other than chunked")
        << encoding;
  }
  EXPECT_EQ(FaultOf(WithHeader("Transfer-Encoding: identity, chunked")),
            "More than one word about the length of the body");
}

TEST(RequestFramingEncoding, MayBeWrittenInCapitalsWithBlanksAround) {
  for (const std::string encoding : {"chunked", " CHUNKED", " Chunked \t"}) {
    const std::string request =
        "POST / HTTP/1.1\r\ntransfer-ENCODING:" + encoding + "\r\n\r\n1\r\na\r\n0\r\n\r\n";
    EXPECT_EQ(Read(request + "more"), (Outcome{"", request.size(), 4})) << encoding;
  }
}

TEST(RequestFramingMethods, WithoutABodyAnnounceNone) {
  for (const std::string method :
       {"HEAD", "TRACE", "OPTIONS", "CONNECT", "FOO", "get", "GETT", "GE", "PROPFIND",
        "A-VERY-LONG-METHOD-OF-30-BYTES", "GE\rT", "GET\t"}) {
    const std::string start = method + " / HTTP/1.1\r\n";
    EXPECT_EQ(FaultOf(start + "Content-Length: 1\r\n\r\nx"), "A body with a method that has none");
    EXPECT_EQ(FaultOf(start + "Transfer-Encoding: chunked\r\n\r\n0\r\n\r\n"),
              "A body with a method that has none");
    EXPECT_EQ(FaultOf(start + "Content-Length: 0\r\n\r\n"), "");
    EXPECT_EQ(FaultOf(start + "\r\n"), "");
  }
}

TEST(RequestFramingChunks, EndWithAnEmptyOneAndAnEmptyTrailer) {
  for (const std::string body :
       {"0\r\n\r\n", "0\n\n", "000\r\n\r\n", "1\r\n\n\r\n0\r\n\r\n", "1\n0\n0\n\n",
        "a\r\n0\r\n\r\n0\r\n\r\n\r\n0\r\n\r\n", "A;x=y\r\n0123456789\r\n00 ; x\r\n\r\n",
        "00000000000000f \r\n0123456789abcde\r\n0;\x80\t\"\r\n\r\n"}) {
    EXPECT_EQ(Read(Chunked(body) + "more"), (Outcome{"", Chunked(body).size(), 4})) << body;
    EXPECT_EQ(Read(Chunked(body.substr(0, body.size() - 1))), (Outcome{"", kNotWhole, 3})) << body;
  }
}

TEST(RequestFramingChunks, HaveHexadecimalLengths) {
  for (const std::string line :
       {"x", "+1", "-5", "0x1", " 1", "\t1", "1 x", "1 1", "1\t", "1x", ";x", " "}) {
    EXPECT_EQ(FaultOf(Chunked(line + "\r\n")), "The length of a chunk is no hexadecimal number")
        << line;
  }
  for (const std::string line : {"", "0000000000000001", "10000000000000000"}) {
    EXPECT_EQ(FaultOf(Chunked(line + "\r\n")),
              "The length of a chunk has no digits or more than 15")
        << line;
  }
}

TEST(RequestFramingChunks, HaveNoControlCharactersInTheirLines) {
  for (const std::string& line :
       {"1\0"s, "1\r\r"s, "1;\x01"s, "1 \x7f"s, "\0"s, "\r"s, "1;a\rb"s}) {
    EXPECT_EQ(FaultOf(Chunked(line + "\r\n")),
              "A control character in the line of a chunk's length");
  }
}

TEST(RequestFramingChunks, HaveNoLongLines) {
  const std::string longest = "0;" + std::string(1022, 'x');
  EXPECT_EQ(FaultOf(Chunked(longest + "\r\n\r\n")), "");
  EXPECT_EQ(FaultOf(Chunked(longest + "x")), "The line of a chunk's length is too long");
  EXPECT_EQ(FaultOf(Chunked(std::string(1025, '0'))), "The line of a chunk's length is too long");
}

TEST(RequestFramingChunks, AreAsLongAsTheySay) {
  for (const std::string body : {"1\r\nab", "1\r\na0\r\n\r\n", "1\r\na\r\r\n", "1\r\na \r\n"}) {
    EXPECT_EQ(FaultOf(Chunked(body)), "A chunk is longer than its length") << body;
  }
  EXPECT_EQ(FaultOf(Chunked("1\r\na\r\n\r\n")),
            "The length of a chunk has no digits or more than 15");
}

TEST(RequestFramingChunks, HaveNoTrailer) {
  for (const std::string& trailer : {"PairingKey: key"s, "X"s, " "s, "\r"s, "\0"s}) {
    EXPECT_EQ(FaultOf(Chunked("0\r\n" + trailer + "\r\n\r\n")), "A trailer field");
  }
}

TEST(RequestFramingFault, TellsWhereItsLineBegins) {
  for (const std::string& sound : {""s, "GET / HTTP/1.1\r\n"s, "GET / HTTP/1.1\r\nA: b\r\n"s}) {
    EXPECT_EQ(Read(sound + "A\0: b\r\n\r\nmore"s).end, sound.size());
  }
  for (const std::string& sound : {""s, "1\r\na"s, "1\r\na\r\n"s, "1\r\na\r\n0\r\n"s}) {
    EXPECT_EQ(Read(Chunked(sound) + "x\r\n\r\nmore"s).end, Chunked(sound).size());
  }
  const std::string head = "HEAD / HTTP/1.1\r\nContent-Length: 1\r\n";
  EXPECT_EQ(Read(head + "\r\nx").end, head.size());
}

TEST(RequestFramingFault, IsTheLastThing) {
  RequestFraming framing;
  const std::string faulty = "GET / HTTP/1.1\r\n: b\r\n\r\n";
  framing.Take(faulty.data(), faulty.size());
  EXPECT_EQ(framing.Lines(), 1u);
  framing.Take(faulty.data(), faulty.size());
  EXPECT_EQ(framing.Fault(), "A header without a name"s);
  EXPECT_EQ(framing.Lines(), 1u);
  EXPECT_EQ(framing.Unsound(), faulty.size() - 16);
}

}  // namespace
