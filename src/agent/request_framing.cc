#include "agent/request_framing.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <string_view>

#include "agent/limits.h"

namespace tavlo {

namespace {

// More digits may be more than libevent can count.
constexpr size_t kMaxLengthDigits = 18;
constexpr size_t kMaxChunkDigits = 15;

// Whether any other has a body, versions of libevent and proxies see differently.
constexpr std::array<std::string_view, 5> kMethodsWithBody = {"GET", "POST", "PUT", "DELETE",
                                                              "PATCH"};

constexpr char kCarriageReturn = '\r';

constexpr const char* kControlInHeader = "A control character in a header";

constexpr bool IsControl(char c) {
  return (static_cast<unsigned char>(c) < ' ' && c != '\t') || c == 127;
}

constexpr bool IsText(char c) {
  return !IsControl(c);
}

constexpr bool IsTokenCharacter(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
         std::string_view("!#$%&'*+-.^_`|~").find(c) != std::string_view::npos;
}

// A look at a table is faster than the comparisons by far, and each byte of a head has one.
using Table = std::array<bool, 256>;

constexpr Table MakeTable(bool (*isIn)(char)) {
  Table table = {};
  for (size_t c = 0; c < table.size(); ++c) {
    table[c] = isIn(static_cast<char>(static_cast<unsigned char>(c)));
  }
  return table;
}

constexpr Table kText = MakeTable(IsText);
constexpr Table kToken = MakeTable(IsTokenCharacter);

// The first that is not in the table.
const char* EndOf(const Table& table, const char* from, const char* end) {
  while (from != end && table[static_cast<unsigned char>(*from)]) {
    ++from;
  }
  return from;
}

bool IsDigit(char c) {
  return c >= '0' && c <= '9';
}

int HexDigit(char c) {
  const char lower = static_cast<char>(c | 0x20);
  return IsDigit(c) ? c - '0' : lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

bool IsVersion(std::string_view word) {
  return word.size() == 8 && std::memcmp(word.data(), "HTTP/1.", 7) == 0 && IsDigit(word[7]);
}

// `lower` has only what 0x20 is set in: small letters and hyphens; `text` no control characters.
bool HasLetters(std::string_view text, const char* lower) {
  return std::equal(text.begin(), text.end(), lower,
                    [](char c, char expected) { return (c | 0x20) == expected; });
}

bool IsSame(std::string_view text, std::string_view lower) {
  return text.size() == lower.size() && HasLetters(text, lower.data());
}

}  // namespace

void RequestFraming::Take(const char* bytes, size_t length) {
  const char* const end = bytes + length;
  while (bytes != end && fault_ == nullptr && part_ != Part::kEnd) {
    const bool isInBody = part_ == Part::kBody || part_ == Part::kChunk;
    bytes = isInBody ? TakeBody(bytes, end) : TakeLine(bytes, end);
  }
}

const char* RequestFraming::TakeBody(const char* from, const char* end) {
  const uint64_t taken = std::min<uint64_t>(rest_, static_cast<uint64_t>(end - from));
  rest_ -= taken;
  if (rest_ == 0) {
    BeginLine(part_ == Part::kBody ? Part::kEnd : Part::kChunkEnd);
  }
  return from + taken;
}

const char* RequestFraming::TakeLine(const char* from, const char* end) {
  const size_t lineSoFar = textLength_ + (endsInCarriageReturn_ ? 1 : 0);
  const auto* const lineFeed =
      static_cast<const char*>(std::memchr(from, '\n', static_cast<size_t>(end - from)));
  const char* textEnd = lineFeed != nullptr ? lineFeed : end;
  if (textEnd != from) {
    if (endsInCarriageReturn_) {
      TakeText(&kCarriageReturn, &kCarriageReturn + 1);
    }
    endsInCarriageReturn_ = textEnd[-1] == kCarriageReturn;
    TakeText(from, endsInCarriageReturn_ ? textEnd - 1 : textEnd);
  }
  if (lineFeed != nullptr) {
    EndLine();
  }
  if (fault_ != nullptr) {
    unsound_ = lineSoFar + static_cast<size_t>(end - from);
  }
  return lineFeed != nullptr ? lineFeed + 1 : end;
}

void RequestFraming::TakeText(const char* from, const char* end) {
  if (from == end || fault_ != nullptr) {
    return;
  }
  switch (part_) {
    case Part::kMethod:
    case Part::kRequestLine:
      TakeRequestLine(from, end);
      break;
    case Part::kName:
      TakeName(from, end);
      break;
    case Part::kValue:
      TakeValue(from, end);
      break;
    case Part::kChunkLength:
    case Part::kChunkPadding:
    case Part::kChunkExtension:
      TakeChunkLine(from, end);
      break;
    case Part::kChunkEnd:
      SetFault("A chunk is longer than its length");
      break;
    case Part::kTrailer:
      SetFault("A trailer field");
      break;
    case Part::kBody:
    case Part::kChunk:
    case Part::kEnd:
      break;  // not made of lines
  }
  textLength_ += static_cast<size_t>(end - from);
}

void RequestFraming::TakeRequestLine(const char* from, const char* end) {
  if (std::memchr(from, '\0', static_cast<size_t>(end - from)) != nullptr) {
    SetFault("A NUL in the request line");
  }
  if (part_ == Part::kMethod) {
    const char* const methodEnd = std::find(from, end, ' ');
    Keep(from, methodEnd);
    if (methodEnd == end) {
      return;
    }
    EndMethod();
    from = methodEnd;
  }
  KeepLastWord(from, end);
}

// libevent takes the last word for the version, whatever is before it; blanks may follow.
void RequestFraming::KeepLastWord(const char* from, const char* end) {
  const char* wordEnd = end;
  while (wordEnd != from && wordEnd[-1] == ' ') {
    --wordEnd;
  }
  const char* word = wordEnd;
  while (word != from && word[-1] != ' ') {
    --word;
  }
  if (word != from || (isWordOver_ && word != wordEnd)) {
    wordLength_ = 0;
  }
  Keep(word, wordEnd);
  isWordOver_ = wordEnd != end;
}

void RequestFraming::TakeName(const char* from, const char* end) {
  const char* const nameEnd = EndOf(kToken, from, end);
  Keep(from, nameEnd);
  if (nameEnd == end) {
    return;
  }
  if (*nameEnd == ':' && wordLength_ > 0) {
    EndName();
    TakeValue(nameEnd + 1, end);
  } else if (*nameEnd == ' ' || *nameEnd == '\t') {
    SetFault(wordLength_ == 0 ? "A header line that begins with a blank"
                              : "A blank in a header's name");
  } else {
    SetFault(*nameEnd == ':'       ? "A header without a name"
             : IsControl(*nameEnd) ? "A control character in a header's name"
                                   : "A character that no header's name may have");
  }
}

void RequestFraming::TakeValue(const char* from, const char* end) {
  if (field_ != Field::kOther) {
    TakeWord(from, end);
  } else if (EndOf(kText, from, end) != end) {
    SetFault(kControlInHeader);
  }
}

// Blanks around the word are no part of it.
void RequestFraming::TakeWord(const char* from, const char* end) {
  for (; from != end && fault_ == nullptr; ++from) {
    // Versions of libevent differ in whether a tab is one of those blanks.
    const bool isBlank =
        *from == ' ' || (*from == '\t' && (wordLength_ > 0 || field_ == Field::kContentLength));
    if (isBlank) {
      isWordOver_ = wordLength_ > 0;
    } else if (IsControl(*from)) {
      SetFault(kControlInHeader);
    } else if (isWordOver_) {
      SetFault("More than one word about the length of the body");
    } else {
      Keep(from, from + 1);
    }
  }
}

void RequestFraming::TakeChunkLine(const char* from, const char* end) {
  size_t room = kMaxChunkLine - textLength_;
  for (; from != end && fault_ == nullptr; ++from) {
    if (room-- == 0) {
      SetFault("The line of a chunk's length is too long");
    } else if (IsControl(*from)) {
      SetFault("A control character in the line of a chunk's length");
    } else if (part_ == Part::kChunkLength && HexDigit(*from) >= 0) {
      Keep(from, from + 1);
    } else if (wordLength_ > 0 && part_ != Part::kChunkExtension && *from == ' ') {
      part_ = Part::kChunkPadding;
    } else if (wordLength_ > 0 && *from == ';') {
      part_ = Part::kChunkExtension;
    } else if (part_ != Part::kChunkExtension) {
      SetFault("The length of a chunk is no hexadecimal number");
    }
  }
}

void RequestFraming::EndLine() {
  if (fault_ != nullptr) {
    return;
  }
  switch (part_) {
    case Part::kMethod:
    case Part::kRequestLine:
      CountLine();
      EndRequestLine();
      break;
    case Part::kName:
      CountLine();
      EndHead();
      break;
    case Part::kValue:
      CountLine();
      EndValue();
      break;
    case Part::kChunkLength:
    case Part::kChunkPadding:
    case Part::kChunkExtension:
      EndChunkLine();
      break;
    case Part::kChunkEnd:
      BeginLine(Part::kChunkLength);
      break;
    case Part::kTrailer:
      CountLine();
      BeginLine(Part::kEnd);
      break;
    case Part::kBody:
    case Part::kChunk:
    case Part::kEnd:
      break;  // not made of lines
  }
}

void RequestFraming::EndMethod() {
  mayHaveBody_ =
      std::find(kMethodsWithBody.begin(), kMethodsWithBody.end(), Word()) != kMethodsWithBody.end();
  part_ = Part::kRequestLine;
  wordLength_ = 0;
}

void RequestFraming::EndRequestLine() {
  if (part_ == Part::kMethod || !IsVersion(Word())) {
    SetFault("A request line without a version of HTTP/1");
    return;
  }
  mayHaveChunks_ = Word() != "HTTP/1.0";
  BeginLine(Part::kName);
}

void RequestFraming::CountLine() {
  if (++lines_ > kMaxHeadLines) {
    SetFault("Too many lines in the head");
  }
}

void RequestFraming::EndName() {
  field_ = Field::kOther;
  if (IsSame(Word(), "content-length")) {
    field_ = Field::kContentLength;
    if (hasLength_) {
      SetFault("Two Content-Length");
    }
    hasLength_ = true;
  } else if (IsSame(Word(), "transfer-encoding")) {
    field_ = Field::kTransferEncoding;
    if (isChunked_) {
      SetFault("Two Transfer-Encoding");
    }
    isChunked_ = true;
  } else if (IsSame(Word(), "pairingkey")) {
    if (hasKey_) {
      SetFault("Two PairingKey");
    }
    hasKey_ = true;
  }
  if (hasLength_ && isChunked_) {
    SetFault("Content-Length beside Transfer-Encoding");
  }
  part_ = Part::kValue;
  wordLength_ = 0;
  isWordOver_ = false;
}

void RequestFraming::EndValue() {
  if (field_ == Field::kTransferEncoding && !IsSame(Word(), "chunked")) {
    SetFault("A Transfer-Encoding other than chunked");
  } else if (field_ == Field::kContentLength) {
    EndLength();
  }
  BeginLine(Part::kName);
}

void RequestFraming::EndLength() {
  const bool isNumber = Word().find_first_not_of("0123456789") == std::string_view::npos;
  if (!isNumber || wordLength_ == 0 || wordLength_ > kMaxLengthDigits) {
    SetFault("A Content-Length that is no number of at most 18 digits");
    return;
  }
  for (const char digit : Word()) {
    rest_ = rest_ * 10 + static_cast<uint64_t>(digit - '0');
  }
}

// At the end of a line of the head without a colon, the empty one.
void RequestFraming::EndHead() {
  if (textLength_ > 0) {
    SetFault("A header without a colon");
  } else if ((isChunked_ || rest_ > 0) && !mayHaveBody_) {
    SetFault("A body with a method that has none");
  } else if (isChunked_ && !mayHaveChunks_) {
    SetFault("Chunks in a version of HTTP that has none");
  } else if (isChunked_) {
    BeginLine(Part::kChunkLength);
  } else {
    BeginLine(rest_ > 0 ? Part::kBody : Part::kEnd);
  }
}

void RequestFraming::EndChunkLine() {
  if (wordLength_ == 0 || wordLength_ > kMaxChunkDigits) {
    SetFault("The length of a chunk has no digits or more than 15");
    return;
  }
  for (const char digit : Word()) {
    rest_ = rest_ * 16 + static_cast<uint64_t>(HexDigit(digit));
  }
  BeginLine(rest_ > 0 ? Part::kChunk : Part::kTrailer);
  ++chunks_;
}

void RequestFraming::BeginLine(Part part) {
  part_ = part;
  textLength_ = 0;
  wordLength_ = 0;
  endsInCarriageReturn_ = false;
}

void RequestFraming::Keep(const char* from, const char* end) {
  const size_t length = std::min(static_cast<size_t>(end - from), sizeof word_ - wordLength_);
  std::memcpy(word_ + wordLength_, from, length);
  wordLength_ = static_cast<uint8_t>(wordLength_ + length);
}

// The first one tells: what is read behind it may be wrong because of it.
void RequestFraming::SetFault(const char* fault) {
  if (fault_ == nullptr) {
    fault_ = fault;
  }
}

}  // namespace tavlo
