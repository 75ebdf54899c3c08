#include "ctl/log_reader.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>

#include <fcntl.h>
#include <unistd.h>
#include <zlib.h>

#include "util/error_text.h"
#include "util/retry.h"

namespace tavlo::ctl {

namespace {

constexpr size_t kPiece = 65536;

struct CloseFile {
  void operator()(gzFile file) const { ::gzclose(file); }
};

using File = std::unique_ptr<gzFile_s, CloseFile>;

int OpenDescriptor(const std::string& path) {
  if (path == "-") {
    return ::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0);
  }
  return stdext::retry_on_interrupt([&] { return ::open(path.c_str(), O_RDONLY | O_CLOEXEC); });
}

// The library also reads what is not compressed.
File Open(const std::string& path) {
  const int fd = OpenDescriptor(path);
  if (fd < 0) {
    return nullptr;
  }
  File file(::gzdopen(fd, "r"));
  if (file == nullptr) {
    ::close(fd);
    errno = ENOMEM;
    return nullptr;
  }
  ::gzbuffer(file.get(), kPiece);
  return file;
}

// Puts lines together from the pieces that they come in.
class Splitter {
 public:
  explicit Splitter(const std::function<void(std::string_view)>& take) : take_(take) {}

  void Add(std::string_view piece) {
    while (!piece.empty()) {
      const size_t end = std::min(piece.find('\n'), piece.size());
      line_.append(piece.substr(0, std::min(end, kMaxLogLine - line_.size())));
      begun_ = true;
      if (end == piece.size()) {
        return;
      }
      Finish();
      piece.remove_prefix(end + 1);
    }
  }

  // The last line may have no line feed.
  void Finish() {
    if (begun_) {
      take_(line_);
    }
    line_.clear();
    begun_ = false;
  }

 private:
  const std::function<void(std::string_view)>& take_;
  std::string line_;
  bool begun_ = false;
};

// What went wrong with the file; empty if nothing did, its end included.
std::string FailureOf(gzFile file) {
  int error = Z_OK;
  const char* const text = ::gzerror(file, &error);
  switch (error) {
    case Z_OK:
    case Z_STREAM_END:
      return {};
    case Z_ERRNO:
      return stdext::error_number_and_text(errno);
    case Z_BUF_ERROR:
      return "it ends in the middle";
    default:
      return text;
  }
}

}  // namespace

bool ReadLines(const std::string& path, const std::function<void(std::string_view)>& take,
               std::string* error) {
  const File file = Open(path);
  if (file == nullptr) {
    *error = stdext::error_number_and_text(errno);
    return false;
  }
  std::array<char, kPiece> piece;
  Splitter splitter(take);
  int count = 0;
  while ((count = ::gzread(file.get(), piece.data(), piece.size())) > 0) {
    splitter.Add({piece.data(), static_cast<size_t>(count)});
  }
  *error = FailureOf(file.get());
  splitter.Finish();
  return error->empty();
}

}  // namespace tavlo::ctl
