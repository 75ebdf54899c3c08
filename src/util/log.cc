#include "util/log.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <iostream>

#include <fcntl.h>
#include <pthread.h>
#include <sys/time.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include "util/retry.h"

namespace Orx::Log {

namespace {

// Empty when the clock cannot be read.
std::string TimeText() {
  timeval now = {};
  tm utc = {};
  if (::gettimeofday(&now, nullptr) != 0 || ::gmtime_r(&now.tv_sec, &utc) == nullptr) {
    return {};
  }
  char date[32] = {};
  char milliseconds[32] = {};
  std::strftime(date, sizeof date, "%Y-%m-%d %H:%M:%S.", &utc);
  std::snprintf(milliseconds, sizeof milliseconds, "%.3ld ", static_cast<long>(now.tv_usec / 1000));
  return std::string(date) + milliseconds;
}

const char* LevelPrefix(int level) {
  switch (level) {
    case kError:
      return "ERROR: ";
    case kInfo:
      return "INFO: ";
    case kDebug:
      return "DEBUG: ";
    default:
      return "   ";
  }
}

std::string LinePrefix(int level, const char* function) {
  std::string prefix = TimeText() + Detail::LogPidTid() + LevelPrefix(level);
  if (*function != '\0') {
    prefix.append(function, std::strcspn(function, "("));
    prefix += ": ";
  }
  return prefix;
}

// Console and file get the line and its line feed in one piece, so that lines of several processes
// do not mix either.
void Emit(int level, const char* line) {
  const std::string whole = std::string(line) + '\n';
  if (Detail::ConsoleLogEnabled()) {
    std::clog << whole << std::flush;
  }
  if (Detail::SysLogEnabled()) {
    ::syslog(level, "%s", line);
  }
  if (Detail::FileLogEnabled() && Detail::LogFile().IsGood()) {
    Detail::LogFile().Write(whole.data(), whole.size());
  }
}

// The caller holds the mutex.
void OpenFile() {
  if (Detail::FileLogEnabled() && !Detail::FilePath().empty()) {
    Detail::LogFile().Open(Detail::FilePath());
  }
}

}  // namespace

namespace Detail {

LogFileStream::~LogFileStream() {
  Close();
}

void LogFileStream::Open(const std::string& path) {
  if (IsOpen()) {
    Close();
  }
  fd_ = stdext::retry_on_interrupt(
      [&] { return ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666); });
  good_ = IsOpen();
}

void LogFileStream::Close() {
  good_ = IsOpen() && ::close(fd_) == 0;
  fd_ = -1;
}

void LogFileStream::Write(const char* data, size_t size) {
  while (size > 0) {
    const ssize_t count = stdext::retry_on_interrupt([&] { return ::write(fd_, data, size); });
    if (count < 0) {
      good_ = false;
      return;
    }
    data += count;
    size -= static_cast<size_t>(count);
  }
}

int LogLevel(int initial) {
  static const int level = initial;
  return level;
}

bool ConsoleLogEnabled(bool initial) {
  static const bool enabled = initial;
  return enabled;
}

bool SysLogEnabled(bool initial) {
  static const bool enabled = initial;
  return enabled;
}

bool FileLogEnabled(bool initial) {
  static const bool enabled = initial;
  return enabled;
}

const std::string& FilePath(const std::string& initial) {
  static const std::string path = initial;
  return path;
}

LogFileStream& LogFile() {
  static LogFileStream file;
  return file;
}

std::mutex& Mutex() {
  static std::mutex mutex;
  return mutex;
}

std::string LogPidTid() {
  static const auto pid = static_cast<unsigned long>(::getpid());
  char text[2 * sizeof(unsigned long) * 2 + sizeof "[.] "] = {};
  std::snprintf(text, sizeof text, "[%lx.%lx] ", pid, static_cast<unsigned long>(::pthread_self()));
  return text;
}

}  // namespace Detail

void Open(const char* name, const std::string& path, int level, bool console, bool sysLog,
          bool file) {
  const std::lock_guard<std::mutex> lock(Detail::Mutex());
  static const char* const s_name = name;
  const int ceiling = Detail::LogLevel(level);
  Detail::ConsoleLogEnabled(console);
  const bool toSysLog = Detail::SysLogEnabled(sysLog);
  Detail::FileLogEnabled(file);
  Detail::FilePath(path);
  if (toSysLog) {
    ::setlogmask(LOG_UPTO(ceiling));
    // LOG_PERROR shows each message on standard error too; with the console on as well it appears
    // twice there, deliberately.
    ::openlog(s_name, LOG_PID | LOG_NDELAY | LOG_PERROR, LOG_USER);
  }
  OpenFile();
}

void Message2(int level, const char* function, const char* format, ...) {
  if (level > Detail::LogLevel()) {
    return;
  }
  const std::lock_guard<std::mutex> lock(Detail::Mutex());
  char line[kMaxLineLength + 1] = {};
  const std::string prefix = LinePrefix(level, function);
  const size_t prefixLength = prefix.copy(line, kMaxLineLength);
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(line + prefixLength, sizeof line - prefixLength, format, arguments);
  va_end(arguments);
  Emit(level, line);
}

void Reopen() {
  const std::lock_guard<std::mutex> lock(Detail::Mutex());
  OpenFile();
}

void Close() {
  const std::lock_guard<std::mutex> lock(Detail::Mutex());
  ::closelog();
  Detail::LogFile().Close();
}

}  // namespace Orx::Log
