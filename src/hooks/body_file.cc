#include "hooks/body_file.h"

#include <cerrno>
#include <cstdio>
#include <utility>

#include <unistd.h>

#include "util/descriptor.h"
#include "util/retry.h"

namespace Orx {

namespace {

constexpr mode_t kMode = 0664;

bool WriteFile(const std::string& path, const std::string& data) {
  const stdext::descriptor file(stdext::open_only_here(path.c_str(), 0, kMode));
  if (!file.is_open()) {
    return false;
  }
  const ssize_t written =
      stdext::retry_on_interrupt([&] { return ::write(file.get(), data.data(), data.size()); });
  if (written < 0) {
    return false;
  }
  if (static_cast<size_t>(written) < data.size()) {
    errno = ENOSPC;  // a short write sets no error: the file system is full
    return false;
  }
  return ::ftruncate(file.get(), static_cast<off_t>(data.size())) == 0;
}

}  // namespace

BodyFile::BodyFile(std::string path) : path_(std::move(path)) {}

BodyFile::~BodyFile() {
  if (isWritten_) {
    std::remove(path_.c_str());
  }
}

bool BodyFile::Write(const std::string& data) {
  isWritten_ = WriteFile(path_, data);
  return isWritten_;
}

}  // namespace Orx
