#pragma once

#include <string>

namespace Orx {

/// The file that hands the body of a request to the "agent" scripts. It is removed with this
/// object, if it was written.
class BodyFile {
 public:
  explicit BodyFile(std::string path);
  ~BodyFile();
  BodyFile(const BodyFile&) = delete;
  BodyFile& operator=(const BodyFile&) = delete;

  /// Makes `data` the whole content. The file is created if need be, with mode 0664 less the umask;
  /// `stdext::open_only_here` says what is refused. Returns false, and `errno` tells why, when it
  /// cannot be written; what it held before is cut off only when the rest is written.
  bool Write(const std::string& data);

 private:
  std::string path_;
  bool isWritten_ = false;
};

}  // namespace Orx
