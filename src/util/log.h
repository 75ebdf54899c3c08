#pragma once

#include <array>
#include <mutex>
#include <string>

/// The process-wide logger. Each message becomes one line,
///
///   2026-01-31 17:04:05.042 [4d2.7f9c5a01c0] ERROR: bool Init: Failed to ignore SIGPIPE
///
/// (UTC time, process and thread in hexadecimal, level, function, text), which goes to up to three
/// sinks: the console (standard error), the system log and an append-only file.
///
/// Any thread may log; one mutex keeps lines whole. The logger reports no failure of its own but
/// one: a file that cannot be opened or written is left out, silently, until it is reopened; a
/// console that takes no line holds the caller up for 100 ms, once, and how many it missed is told
/// when it takes some again.
namespace Orx::Log {

/// The levels in use; they are the system log's.
constexpr int kError = 3;
constexpr int kInfo = 6;
constexpr int kDebug = 7;

/// A longer line is cut, in bytes without the line feed.
constexpr size_t kMaxLineLength = 2047;

/// Opens the sinks. Messages with a level above `level` are dropped. `name` identifies the process
/// in the system log; it is not copied and must live as long as the process. The file is opened
/// when `file` is set and `path` is not empty.
///
/// Only the first call in a process decides the arguments, deliberately; a later one opens the
/// first one's sinks anew. A message logged before the first call decides them too: the level is 3
/// then and every sink is off.
void Open(const char* name, const std::string& path, int level, bool console, bool sysLog,
          bool file);

/// Emits one line. `function` is a function's signature, of which the part before the first "(" is
/// shown; it may be empty. The rest is as for `printf`. A message above the level costs one
/// comparison.
void Message2(int level, const char* function, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

/// Whether messages of this level are emitted: for what only a line needs and costs something.
bool IsOn(int level);

/// Closes the log file and opens the same path again, so that a rotated file is let go. Does
/// nothing without file logging.
void Reopen();

/// Closes the system log and the file. Lines logged afterwards reach the console and the system log
/// only.
void Close();

/// What the logger consists of. The settings are fixed by the first use of each.
namespace Detail {

/// The log file: an appending stream, opened close-on-exec so that no child process inherits it
/// (which std::ofstream cannot do), with one `write` a line.
class LogFileStream {
 public:
  LogFileStream() = default;
  ~LogFileStream();
  LogFileStream(const LogFileStream&) = delete;
  LogFileStream& operator=(const LogFileStream&) = delete;

  /// Creates the file when it is missing, never truncates it; an open file is closed first.
  void Open(const std::string& path);
  void Close();

  /// False once opening, writing or closing has failed, until the next successful `Open`.
  bool IsGood() const { return good_; }
  bool IsOpen() const { return fd_ >= 0; }

  void Write(const char* data, size_t size);

 private:
  int fd_ = -1;
  bool good_ = true;
};

int LogLevel(int initial = kError);
bool ConsoleLogEnabled(bool initial = false);
bool SysLogEnabled(bool initial = false);
bool FileLogEnabled(bool initial = false);
const std::string& FilePath(const std::string& initial = std::string());
LogFileStream& LogFile();
std::mutex& Mutex();

/// The process and thread part of a line, with its NUL: "[4d2.7f9c5a01c0] ". It is the calling
/// thread's own.
using PidTidText = std::array<char, 40>;
const PidTidText& LogPidTid();

}  // namespace Detail

/// Logs "Enter" when it is made and "Leave" when its scope is left, at debug level.
class Scope {
 public:
  /// `function` is not copied.
  explicit Scope(const char* function) : function_(function) {
    Message2(kDebug, function_, "Enter");
  }
  ~Scope() { Message2(kDebug, function_, "Leave"); }
  Scope(const Scope&) = delete;
  Scope& operator=(const Scope&) = delete;

 private:
  const char* function_;
};

}  // namespace Orx::Log

/// Logs under the enclosing function's signature: ORX_LOG(Orx::Log::kError, "port %d", port);
#define ORX_LOG(level, ...) ::Orx::Log::Message2((level), __PRETTY_FUNCTION__, __VA_ARGS__)

/// Logs the enclosing function's entry and every exit from it.
#define ORX_LOG_SCOPE() const ::Orx::Log::Scope logScope(__PRETTY_FUNCTION__)
