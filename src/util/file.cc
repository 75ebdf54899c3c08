#include "util/file.h"

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <thread>
#include <utility>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include "util/descriptor.h"
#include "util/error_text.h"
#include "util/retry.h"

namespace stdext {

namespace {

constexpr int kLockRetries = 40;
constexpr int kLockDelayMs = 100;

struct LockAttempt {
  int fd;
  bool locked;
};

// Tries every open descriptor that is not locked yet; true when none is left.
bool TryLocks(std::vector<LockAttempt>& attempts) {
  bool allLocked = true;
  for (LockAttempt& attempt : attempts) {
    if (attempt.fd < 0 || attempt.locked) {
      continue;
    }
    attempt.locked = ::flock(attempt.fd, LOCK_EX | LOCK_NB) == 0;
    allLocked = allLocked && attempt.locked;
  }
  return allLocked;
}

// The failure that `errno` tells about.
Orx::Status ReadFailure(const std::string& path) {
  return Orx::Status::Failure("Failed to read file " + path + ": " + error_number_and_text(errno));
}

// Fills `content`, whose size is how many bytes are expected. A file that shrank meanwhile is an
// error: half a text must not pass for a whole one.
bool ReadExactly(int fd, std::string* content) {
  size_t done = 0;
  while (done < content->size()) {
    const ssize_t count = retry_on_interrupt(
        [&] { return ::read(fd, content->data() + done, content->size() - done); });
    if (count < 0) {
      return false;
    }
    if (count == 0) {
      errno = EIO;
      return false;
    }
    done += static_cast<size_t>(count);
  }
  return true;
}

}  // namespace

std::vector<int> lock_file(const std::vector<std::string>& paths, int retries, int delayMs) {
  if (delayMs < 1 || retries < 1 || paths.empty()) {
    return {};
  }
  // All memory first: without it no lock must stay with nobody to release it.
  std::vector<LockAttempt> attempts;
  std::vector<int> result;
  attempts.reserve(paths.size());
  result.reserve(paths.size());
  for (const std::string& path : paths) {
    const int fd = retry_on_interrupt([&] { return ::open(path.c_str(), O_RDWR | O_CLOEXEC); });
    attempts.push_back({fd, false});
  }
  int lockError = errno;
  for (int attempt = 0; attempt <= retries && !TryLocks(attempts); ++attempt) {
    lockError = errno;
    std::this_thread::sleep_for(std::chrono::milliseconds(delayMs));
  }
  for (const LockAttempt& attempt : attempts) {
    if (attempt.fd >= 0 && !attempt.locked) {
      ::close(attempt.fd);
    }
    result.push_back(attempt.locked ? attempt.fd : -1);
  }
  errno = lockError;
  return result;
}

int lock_file(const std::string& path, int retries, int delayMs) {
  const std::vector<int> descriptors = lock_file(std::vector<std::string>{path}, retries, delayMs);
  return descriptors.empty() ? -1 : descriptors.front();
}

file::file(std::string path) : file(std::move(path), kLockNotAttempted) {
  lockDescriptor_ = lock_file(path_, kLockRetries, kLockDelayMs);
  if (lockDescriptor_ == kLockFailed) {
    lockError_ = errno;
  }
}

file::file(std::string path, int lockDescriptor)
    : path_(std::move(path)), lockDescriptor_(lockDescriptor) {}

file file::without_lock(std::string path) {
  return {std::move(path), kLockNotAttempted};
}

file::~file() {
  if (lockDescriptor_ >= 0) {
    ::close(lockDescriptor_);
  }
  lockDescriptor_ = kLockNotAttempted;
}

Orx::Status file::read(unsigned long maxSize, std::string* content) const {
  if (lockDescriptor_ == kLockFailed) {
    return Orx::Status::Failure("Failed to lock file " + path_ + ": " +
                                error_number_and_text(lockError_));
  }
  content->clear();
  // Opening a FIFO that nobody writes to must not block; a regular file is read as ever.
  descriptor input(
      retry_on_interrupt([&] { return ::open(path_.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK); }));
  if (!input.is_open()) {
    return ReadFailure(path_);
  }
  const off_t size = ::lseek(input.get(), 0, SEEK_END);
  if (size < 0 || ::lseek(input.get(), 0, SEEK_SET) < 0) {
    return ReadFailure(path_);
  }
  const size_t limit = maxSize != 0 ? maxSize : content->max_size();
  // With 32 bits a file may be larger than a size_t says.
  if (static_cast<std::uintmax_t>(size) > limit) {
    errno = EFBIG;
    return ReadFailure(path_);
  }
  content->resize(static_cast<size_t>(size));
  if (!ReadExactly(input.get(), content) || !input.close()) {
    return ReadFailure(path_);
  }
  return Orx::Status::Ok();
}

}  // namespace stdext
