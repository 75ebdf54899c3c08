#pragma once

namespace Orx {

/// One pipe, whose two descriptors it owns and closes.
struct RaiiPipe {
  RaiiPipe() = default;
  ~RaiiPipe();
  RaiiPipe(const RaiiPipe&) = delete;
  RaiiPipe& operator=(const RaiiPipe&) = delete;

  /// Creates the pipe, both ends close-on-exec. Returns 0, or -1 after one logged error.
  int OpenPipe();

  /// Closes the write end; returns what `close` returned, or 0 when it was not open.
  int CloseWriteFd();

  /// Closes the read end when it is open.
  void CloseReadFd();

  int readFd = -1;  ///< -1 when not open
  int writeFd = -1;
};

}  // namespace Orx
