#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace tavlo {

/// Reads along while one HTTP/1 request comes in, from the first byte of its head to the last of
/// its body: tells how many lines its head has, where it ends, and whether its framing can be read
/// in one way only. libevent does the reading proper; what it lets through depends on its version,
/// and on the patches of who built it. Where there is no fault, both end the request at the same
/// byte. What versions of libevent read differently, or what somebody between here and the client
/// may read otherwise, is a fault.
///
/// Limits of size are libevent's own, and so is the form of the request line, but for a NUL in it
/// and for its version. Allocates nothing, and keeps next to nothing of what it has read.
class RequestFraming {
 public:
  /// Takes the bytes that have come next. What lies behind the request's end is not looked at.
  void Take(const char* bytes, size_t length);

  /// How many line feeds the head, and the trailer of a chunked body, have had so far.
  size_t Lines() const { return lines_; }

  /// Whether the request has come whole.
  bool IsWhole() const { return part_ == Part::kEnd; }

  /// How many chunks of the body have begun so far.
  size_t Chunks() const { return chunks_; }

  /// What is wrong with the request, in words for the log; null while nothing is. Nothing more is
  /// looked at once there is something.
  const char* Fault() const { return fault_; }

  /// With a fault, how many bytes there are from the beginning of its line to the end of what was
  /// taken. libevent has read none of them, for it reads whole lines; what lies before them is
  /// sound.
  size_t Unsound() const { return unsound_; }

 private:
  enum class Part : uint8_t {
    kMethod,
    kRequestLine,  // what follows the method
    kName,
    kValue,
    kBody,
    kChunkLength,
    kChunkPadding,
    kChunkExtension,
    kChunk,
    kChunkEnd,
    kTrailer,
    kEnd
  };
  enum class Field : uint8_t { kOther, kContentLength, kTransferEncoding };

  const char* TakeBody(const char* from, const char* end);
  const char* TakeLine(const char* from, const char* end);
  void TakeText(const char* from, const char* end);
  void TakeRequestLine(const char* from, const char* end);
  void KeepLastWord(const char* from, const char* end);
  void TakeName(const char* from, const char* end);
  void TakeValue(const char* from, const char* end);
  void TakeWord(const char* from, const char* end);
  void TakeChunkLine(const char* from, const char* end);
  void EndLine();
  void EndMethod();
  void EndRequestLine();
  void CountLine();
  void EndName();
  void EndValue();
  void EndLength();
  void EndHead();
  void EndChunkLine();
  void BeginLine(Part part);
  std::string_view Word() const { return {word_, wordLength_}; }
  void Keep(const char* from, const char* end);
  void SetFault(const char* fault);

  const char* fault_ = nullptr;
  size_t unsound_ = 0;
  size_t lines_ = 0;
  size_t chunks_ = 0;
  size_t textLength_ = 0;  // of the line, without what ends it
  uint64_t rest_ = 0;      // of the body or the chunk, in bytes
  Part part_ = Part::kMethod;
  Field field_ = Field::kOther;
  bool endsInCarriageReturn_ = false;  // what was taken of the line; may belong to the line's end
  bool mayHaveBody_ = false;
  bool mayHaveChunks_ = false;
  bool hasLength_ = false;
  bool isChunked_ = false;
  bool hasKey_ = false;
  bool isWordOver_ = false;
  // What is being read of what matters here: the method, the version, a header's name, the value of
  // one that frames the body, a chunk's length. It has room for one character more than any that
  // counts.
  uint8_t wordLength_ = 0;
  char word_[19] = {};
};

}  // namespace tavlo
