#pragma once

#include <sys/types.h>

namespace stdext {

/// The owner of one file descriptor; closes it on destruction. Not copied.
class descriptor {
 public:
  /// `fd` may be -1 for none.
  explicit descriptor(int fd = -1) : fd_(fd) {}
  ~descriptor() { close(); }
  descriptor(const descriptor&) = delete;
  descriptor& operator=(const descriptor&) = delete;

  int get() const { return fd_; }
  bool is_open() const { return fd_ >= 0; }

  /// Gives the descriptor up to the caller.
  int release();

  /// Closes the descriptor, if there is one; returns false, with `errno` set, when that reported an
  /// error. The descriptor is gone in any case.
  bool close();

 private:
  int fd_;
};

/// Opens a file to write to it, creates it with `mode` when it is missing, and never waits. `flags`
/// are added to open's. In a directory where others may write they can have put something else
/// there: returns -1, with `errno`, for a symbolic link (ELOOP), a file that has another name
/// elsewhere (EMLINK), and what is no regular file (ENXIO, EISDIR). May be called in a signal
/// handler.
int open_only_here(const char* path, int flags, mode_t mode);

/// Opens /dev/null in place of standard input, output and error where they are closed. Otherwise
/// the next socket would take the place, and be sent what is meant for the console.
void open_missing_standard_descriptors();

}  // namespace stdext
