#include "util/log.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <iostream>

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include "util/retry.h"
#include "util/standard_error.h"

namespace Orx::Log {

namespace {

constexpr const char* kMessage2 = "void Orx::Log::Message2(int, const char*, const char*, ...)";

// LOG_PERROR shows each message on standard error too; with the console on as well it appears twice
// there, deliberately.
constexpr int kSystemLogOptions = LOG_PID | LOG_NDELAY | LOG_PERROR;

// Nothing here allocates: an error is logged when memory has run out too.

// One more for the line feed, and one for the NUL behind it.
using Line = char[kMaxLineLength + 2];

size_t Append(Line& line, size_t length, const char* text, size_t count) {
  const size_t fitting = std::min(count, kMaxLineLength - length);
  std::memcpy(line + length, text, fitting);
  return length + fitting;
}

// Nothing when the clock cannot be read. The caller holds the mutex.
size_t AppendTime(Line& line, size_t length) {
  // Most lines share their second with the one before.
  static time_t second = 0;
  static std::array<char, 32> secondText;
  static size_t secondLength = 0;
  timeval now = {};
  tm utc = {};
  if (::gettimeofday(&now, nullptr) != 0) {
    return length;
  }
  if (secondLength == 0 || now.tv_sec != second) {
    second = now.tv_sec;
    secondLength =
        ::gmtime_r(&second, &utc) == nullptr
            ? 0
            : std::strftime(secondText.data(), secondText.size(), "%Y-%m-%d %H:%M:%S.", &utc);
  }
  if (secondLength == 0) {
    return length;
  }
  const auto digit = [&now](long unit) { return static_cast<char>('0' + now.tv_usec / unit % 10); };
  const char milliseconds[] = {digit(100000), digit(10000), digit(1000), ' '};
  length = Append(line, length, secondText.data(), secondLength);
  return Append(line, length, milliseconds, sizeof milliseconds);
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

// Writes what stands before the message; returns its length.
size_t FormatPrefix(Line& line, int level, const char* function) {
  const char* const who = Detail::LogPidTid().data();
  const char* const prefix = LevelPrefix(level);
  size_t length = AppendTime(line, 0);
  length = Append(line, length, who, std::strlen(who));
  length = Append(line, length, prefix, std::strlen(prefix));
  if (*function != '\0') {
    length = Append(line, length, function, std::strcspn(function, "("));
    length = Append(line, length, ": ", 2);
  }
  return length;
}

// Tells of lines that did not reach the console, in their place; returns whether that did.
bool TellOfLinesLeftOut(unsigned long count) {
  Line note = {};
  const size_t length = FormatPrefix(note, kInfo, kMessage2);
  std::snprintf(note + length, sizeof note - length, "Lines that the console did not take: %lu\n",
                count);
  std::clog << note << std::flush;
  return std::clog.good();
}

// With its line feed.
void WriteToConsole(const char* line, size_t size) {
  static unsigned long leftOut = 0;
  if (!stdext::standard_error_takes_a_line()) {
    ++leftOut;
    return;
  }
  std::clog.clear();  // what could not be written earlier is no reason to write no more
  if (leftOut > 0 && TellOfLinesLeftOut(leftOut)) {
    leftOut = 0;
  }
  if (!std::clog.write(line, static_cast<std::streamsize>(size)).flush()) {
    ++leftOut;
  }
}

// As `Open` got it, which comes before all lines.
const char* systemLogName = nullptr;
bool systemLogShowsItsLines = true;

// On standard error, where it would wait for ever.
void LetSystemLogShowItsLines(bool show) {
  if (show != systemLogShowsItsLines) {
    ::openlog(systemLogName, show ? kSystemLogOptions : kSystemLogOptions & ~LOG_PERROR, LOG_USER);
    systemLogShowsItsLines = show;
  }
}

// Console and file get the line and its line feed in one piece, so that lines of several processes
// do not mix either.
void Emit(int level, Line& line) {
  const size_t length = std::strlen(line);
  if (Detail::ConsoleLogEnabled()) {
    line[length] = '\n';
    WriteToConsole(line, length + 1);
  }
  if (Detail::SysLogEnabled()) {
    line[length] = '\0';
    LetSystemLogShowItsLines(stdext::standard_error_takes_a_line());
    ::syslog(level, "%s", line);
  }
  if (Detail::FileLogEnabled() && Detail::LogFile().IsGood()) {
    line[length] = '\n';
    Detail::LogFile().Write(line, length + 1);
  }
}

// A symbolic link that is neither root's nor this user's own is somebody's who may want root to
// write elsewhere. (Where others may make links, but not remove those of others, as in /tmp, they
// cannot put theirs in the place of one that was looked at here.)
bool IsAnothersLink(const char* path) {
  struct stat info = {};
  return ::lstat(path, &info) == 0 && S_ISLNK(info.st_mode) && info.st_uid != 0 &&
         info.st_uid != ::geteuid();
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
  // Without O_NONBLOCK a FIFO that nobody reads would hold up whoever logs, and so everybody. All
  // else is waited for: with it a slow terminal would end the log. O_NOCTTY: it is not to become
  // the terminal whose Ctrl-C ends the daemon.
  constexpr int kFlags = O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
  const auto open = [&](int flags) {
    return stdext::retry_on_interrupt([&] { return ::open(path.c_str(), kFlags | flags, 0666); });
  };
  fd_ = open(O_NOFOLLOW);
  if (fd_ < 0 && errno == ELOOP && !IsAnothersLink(path.c_str())) {
    fd_ = open(0);
  }
  struct stat info = {};
  if (::fstat(fd_, &info) == 0 && !S_ISFIFO(info.st_mode)) {
    ::fcntl(fd_, F_SETFL, O_APPEND);
  }
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

const PidTidText& LogPidTid() {
  static const auto pid = static_cast<unsigned long>(::getpid());
  thread_local PidTidText text = {};
  if (text[0] == '\0') {
    std::snprintf(text.data(), text.size(), "[%lx.%lx] ", pid,
                  static_cast<unsigned long>(::pthread_self()));
  }
  return text;
}

}  // namespace Detail

void Open(const char* name, const std::string& path, int level, bool console, bool sysLog,
          bool file) {
  // Before the lock: it allocates, and a crash for want of memory logs, which takes the lock.
  Detail::FilePath(path);
  const std::lock_guard<std::mutex> lock(Detail::Mutex());
  static const char* const s_name = name;
  const int ceiling = Detail::LogLevel(level);
  Detail::ConsoleLogEnabled(console);
  const bool toSysLog = Detail::SysLogEnabled(sysLog);
  Detail::FileLogEnabled(file);
  if (toSysLog) {
    ::setlogmask(LOG_UPTO(ceiling));
    systemLogName = s_name;
    ::openlog(s_name, kSystemLogOptions, LOG_USER);
    systemLogShowsItsLines = true;
  }
  OpenFile();
}

void Message2(int level, const char* function, const char* format, ...) {
  if (!IsOn(level)) {
    return;
  }
  const std::lock_guard<std::mutex> lock(Detail::Mutex());
  Line line = {};
  const size_t prefixLength = FormatPrefix(line, level, function);
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(line + prefixLength, kMaxLineLength + 1 - prefixLength, format, arguments);
  va_end(arguments);
  Emit(level, line);
}

bool IsOn(int level) {
  return level <= Detail::LogLevel();
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
