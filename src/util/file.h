#pragma once

#include <string>
#include <vector>

#include "util/status.h"

namespace stdext {

/// The largest file that the daemon reads whole, in bytes: configuration, router information and
/// device list have some hundred.
constexpr unsigned long kMaxFileSize = 1048576;

/// Opens each path read-write and takes an exclusive advisory lock (`flock`) on it. Attempts are
/// made without blocking, `retries` + 1 times, `delayMs` milliseconds apart; the pause follows the
/// last failed attempt too. Returns one descriptor per path, in order: locked and close-on-exec, or
/// -1 where the path could not be opened or locked. The caller owns the descriptors; closing one
/// releases its lock. Locks that were obtained are kept when others failed. Returns an empty vector
/// when `retries` or `delayMs` is below 1 or there is no path.
std::vector<int> lock_file(const std::vector<std::string>& paths, int retries, int delayMs);

/// The same for one path: the locked descriptor, or -1 with `errno` telling why (EWOULDBLOCK when
/// another process held the lock all the time).
int lock_file(const std::string& path, int retries, int delayMs);

/// A file that another process may be rewriting, read under an exclusive advisory lock. Several
/// threads may each use their own object; two objects for one path exclude each other as processes
/// do.
class file {
 public:
  /// Takes the lock: up to 41 attempts over about 4.1 s, during which the thread is blocked.
  /// Never fails; a lock that could not be taken makes `read` fail.
  explicit file(std::string path);

  /// A file that is read without a lock.
  static file without_lock(std::string path);

  /// Releases the lock.
  ~file();

  file(const file&) = delete;
  file& operator=(const file&) = delete;

  /// Reads the whole file into `content`. `maxSize` is in bytes, 0 for no limit; a file of exactly
  /// that size is read. Failure messages begin "Failed to lock file " or "Failed to read file ",
  /// name the path, and end in the error's number and text (EFBIG when the file is too large).
  Orx::Status read(unsigned long maxSize, std::string* content) const;

 private:
  static constexpr int kLockNotAttempted = -2;
  static constexpr int kLockFailed = -1;

  file(std::string path, int lockDescriptor);

  std::string path_;
  int lockDescriptor_;
  int lockError_ = 0;
};

}  // namespace stdext
