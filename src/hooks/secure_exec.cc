#include "hooks/secure_exec.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <mutex>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include "hooks/child_environment.h"
#include "hooks/raii_pipe.h"
#include "hooks/running_programs.h"
#include "hooks/subprocess_timeout.h"
#include "util/close_on_exec.h"
#include "util/error_text.h"
#include "util/log.h"
#include "util/retry.h"

namespace Orx {

namespace {

constexpr size_t kReadSize = 1024;
constexpr size_t kMaxPartialLine = 1024;

// The lines of all steps carry the name of the one operation.
constexpr const char* kSecureExec =
    "int Orx::SecureExec(const char*, const std::vector<const char*>&, const std::string&, "
    "std::string*, ssize_t, unsigned int)";

void LogErrno(const char* what) {
  Log::Message2(Log::kError, kSecureExec, "%s: %s", what, stdext::strerror(errno).c_str());
}

struct Pipes {
  RaiiPipe in;
  RaiiPipe out;
  RaiiPipe err;

  bool Open() { return in.OpenPipe() == 0 && out.OpenPipe() == 0 && err.OpenPipe() == 0; }
};

std::vector<char*> ArgumentVector(const char* path, const std::vector<const char*>& args) {
  std::vector<char*> argv;
  argv.reserve(args.size() + 2);
  argv.push_back(const_cast<char*>(path));
  for (const char* argument : args) {
    argv.push_back(const_cast<char*>(argument));
  }
  argv.push_back(nullptr);
  return argv;
}

// Children whose watchdog could not be started. Nobody waits for them or signals them; each is
// reaped by a later call, once it has ended, so that none stays a zombie.
class AbandonedChildren {
 public:
  void Add(pid_t pid) {
    const std::lock_guard<std::mutex> lock(mutex_);
    pids_.push_back(pid);
  }

  void Reap() {
    const std::lock_guard<std::mutex> lock(mutex_);
    pids_.erase(std::remove_if(pids_.begin(), pids_.end(),
                               [](pid_t pid) { return ::waitpid(pid, nullptr, WNOHANG) != 0; }),
                pids_.end());
  }

 private:
  std::mutex mutex_;
  std::vector<pid_t> pids_;
};

AbandonedChildren& TheAbandonedChildren() {
  static AbandonedChildren children;
  return children;
}

// Memory that a thread shares with each child of its until that becomes its program: there the
// child leaves the number of the error that keeps it from it. A page, made once; a pipe would cost
// some system calls for each program.
class ExecError {
 public:
  ExecError() = default;
  ~ExecError() {
    if (number_ != nullptr) {
      ::munmap(number_, sizeof *number_);
    }
  }
  ExecError(const ExecError&) = delete;
  ExecError& operator=(const ExecError&) = delete;

  // Before the fork. Where there is no memory the reason stays unknown.
  void Clear() {
    if (number_ == nullptr) {
      void* const made = ::mmap(nullptr, sizeof *number_, PROT_READ | PROT_WRITE,
                                MAP_SHARED | MAP_ANONYMOUS, -1, 0);
      number_ = made != MAP_FAILED ? static_cast<int*>(made) : nullptr;
    }
    Set(0);
  }

  void Set(int number) {
    if (number_ != nullptr) {
      *number_ = number;
    }
  }

  // 0 when there was none.
  int Get() const { return number_ != nullptr ? *number_ : 0; }

 private:
  int* number_ = nullptr;
};

// How long a program runs, for a debug line; the clock is not asked for nothing.
class Stopwatch {
 public:
  Stopwatch() : start_(Now()) {}

  long long Milliseconds() const {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Now() - start_).count();
  }

 private:
  using Clock = std::chrono::steady_clock;

  static Clock::time_point Now() {
    return Log::IsOn(Log::kDebug) ? Clock::now() : Clock::time_point();
  }

  const Clock::time_point start_;
};

pid_t Fork() {
  const std::lock_guard<std::mutex> lock(stdext::exec_mutex());
  return ::fork();
}

// In the child, from here to exec: async-signal-safe calls only.

// A pipe end may have got one of the numbers 0 to 2, when the daemon was started without them; it
// must make way for the copies, and a copy onto itself would stay close-on-exec.
int MoveAboveStandard(int fd) {
  return fd > STDERR_FILENO ? fd : ::fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
}

bool Install(int fd, int standardFd) {
  return stdext::retry_on_interrupt([=] { return ::dup2(fd, standardFd); }) != -1;
}

[[noreturn]] void RunChild(Pipes& pipes, const char* path, char* const* argv, char* const* envp,
                           ExecError& error) {
  pipes.in.CloseWriteFd();
  pipes.out.CloseReadFd();
  pipes.err.CloseReadFd();
  const int in = MoveAboveStandard(pipes.in.readFd);
  const int out = MoveAboveStandard(pipes.out.writeFd);
  const int err = MoveAboveStandard(pipes.err.writeFd);
  if (Install(in, STDIN_FILENO) && Install(out, STDOUT_FILENO) && Install(err, STDERR_FILENO)) {
    ::execvpe(path, argv, envp);
  }
  error.Set(errno);
  ::_exit(1);
}

// The parent's side of the three pipes.
class ChildStreams {
 public:
  ChildStreams(Pipes& pipes, pid_t pid, const std::string& input, std::string* output,
               ssize_t maxOutput)
      : pipes_(pipes), pid_(pid), input_(input), output_(output), maxOutput_(maxOutput) {
    pipes_.in.CloseReadFd();
    pipes_.out.CloseWriteFd();
    pipes_.err.CloseWriteFd();
    ::fcntl(pipes_.in.writeFd, F_SETFL, O_NONBLOCK);
    if (output_ != nullptr) {
      output_->clear();
    }
  }

  // Until all three are closed, or one fails.
  void Run() {
    while (pipes_.in.writeFd != -1 || pipes_.out.readFd != -1 || pipes_.err.readFd != -1) {
      pollfd entries[] = {
          {pipes_.in.writeFd, POLLOUT, 0},
          {pipes_.out.readFd, POLLIN, 0},
          {pipes_.err.readFd, POLLIN, 0},
      };
      if (stdext::retry_on_interrupt([&] { return ::poll(entries, 3, -1); }) < 1) {
        LogErrno("poll failed");
        failed_ = true;
        return;
      }
      constexpr int kTroubled = POLLERR | POLLHUP;
      if (((entries[0].revents & (POLLOUT | kTroubled)) != 0 && !WriteInput()) ||
          ((entries[1].revents & (POLLIN | kTroubled)) != 0 && !ReadOutput()) ||
          ((entries[2].revents & (POLLIN | kTroubled)) != 0 && !ReadError())) {
        failed_ = true;
        return;
      }
    }
  }

  bool HasFailed() const { return failed_; }
  bool HasOverrun() const { return overrun_; }

 private:
  // Each step returns false, after a logged error, when the conversation is to end.

  // The end is closed on the first writable event after all input has gone out, through a write of
  // nothing: that one finds no fault with a child that has closed its end.
  bool WriteInput() {
    const size_t remaining = input_.size() - written_;
    const ssize_t count = ::write(pipes_.in.writeFd, input_.data() + written_, remaining);
    if (count < 0 && errno != EINTR) {
      // The wrong name is an old one, which log filters know.
      LogErrno("stdout write failed");
      return false;
    }
    if (count > 0) {
      written_ += static_cast<size_t>(count);
    }
    if (remaining == 0 && pipes_.in.CloseWriteFd() != 0) {
      LogErrno("Failed to close stdin write end");
      failed_ = true;
    }
    return true;
  }

  bool ReadOutput() {
    const ssize_t count = ::read(pipes_.out.readFd, buffer_, kReadSize);
    if (count < 0 && errno != EINTR) {
      // The same text as for standard error, deliberately.
      LogErrno("stderr read failed");
      return false;
    }
    if (count == 0) {
      pipes_.out.CloseReadFd();
    }
    if (count > 0) {
      KeepOutput(count);
    }
    return true;
  }

  // What is beyond the limit is dropped, so that the child never blocks on a full pipe.
  void KeepOutput(ssize_t count) {
    if (output_ == nullptr || kept_ >= maxOutput_) {
      return;
    }
    const ssize_t fitting = std::min(maxOutput_ - kept_, count);
    output_->append(buffer_, static_cast<size_t>(fitting));
    kept_ += fitting;
    overrun_ = kept_ == maxOutput_;
  }

  bool ReadError() {
    const ssize_t count = ::read(pipes_.err.readFd, buffer_, kReadSize);
    if (count < 0 && errno != EINTR) {
      LogErrno("stderr read failed");
      return false;
    }
    if (count == 0) {
      pipes_.err.CloseReadFd();
    }
    if (count > 0) {
      errorLines_.append(buffer_, static_cast<size_t>(count));
    }
    SecureExecStderr(errorLines_, pipes_.err.readFd == -1, pid_);
    return true;
  }

  Pipes& pipes_;
  const pid_t pid_;
  const std::string& input_;
  std::string* const output_;
  const ssize_t maxOutput_;
  size_t written_ = 0;
  ssize_t kept_ = 0;
  bool failed_ = false;
  bool overrun_ = false;
  std::string errorLines_;
  char buffer_[kReadSize] = {};
};

// `ordinal` is for the message only.
void WaitForExit(pid_t pid, siginfo_t* info, int options, const char* ordinal) {
  const int result = stdext::retry_on_interrupt(
      [&] { return ::waitid(P_PID, static_cast<id_t>(pid), info, options); });
  if (result != 0) {
    Log::Message2(Log::kError, kSecureExec, "%s waitid pid %d failed: %s", ordinal, pid,
                  stdext::strerror(errno).c_str());
  }
}

// Sees the child to its end; `*reaped` is set once its process number may be somebody else's.
int SuperviseChild(const RunningProgram& program, Pipes& pipes, const std::string& input,
                   std::string* output, ssize_t maxOutput, unsigned int timeoutSecs, bool* reaped) {
  const pid_t pid = program.pid;
  SubprocessWatchdog watchdog(pid, timeoutSecs);
  ChildStreams streams(pipes, pid, input, output, maxOutput);
  siginfo_t info = {};
  {
    const RunningPrograms::Entry entry(program);
    streams.Run();
    // The child stays a zombie, and its number its own, until nobody can signal it any more.
    WaitForExit(pid, &info, WEXITED | WNOWAIT, "1st");
    watchdog.Stop();
  }
  *reaped = true;
  WaitForExit(pid, &info, WEXITED, "2nd");

  if (watchdog.HasFired()) {
    Log::Message2(Log::kError, kSecureExec, "Command timed out, PID %d", pid);
    return -1;
  }
  if (streams.HasFailed()) {
    return -1;
  }
  if (streams.HasOverrun()) {
    Log::Message2(Log::kError, kSecureExec, "stdout output buffer size %zd overrun, PID %d",
                  maxOutput, pid);
    return -1;
  }
  if (info.si_code != CLD_EXITED) {
    Log::Message2(Log::kError, kSecureExec, "Process abnormally exited by signal %d PID %d",
                  info.si_status, pid);
    return -1;
  }
  return info.si_status;
}

}  // namespace

int SecureExec(const char* path, const std::vector<const char*>& args, const std::string& input,
               std::string* output, ssize_t maxOutput, unsigned int timeoutSecs) {
  TheAbandonedChildren().Reap();
  Pipes pipes;
  if (!pipes.Open()) {
    return -1;
  }
  const std::vector<char*> argv = ArgumentVector(path, args);
  const ChildEnvironment environment;
  thread_local ExecError execError;
  execError.Clear();
  const Stopwatch stopwatch;
  const pid_t pid = Fork();
  if (pid == -1) {
    LogErrno("fork failed");
    return -1;
  }
  if (pid == 0) {
    RunChild(pipes, path, argv.data(), environment.Get(), execError);
  }
  bool reaped = false;
  try {
    const int result =
        SuperviseChild({path, pid}, pipes, input, output, maxOutput, timeoutSecs, &reaped);
    if (execError.Get() != 0) {
      Log::Message2(Log::kError, kSecureExec, "Failed to execute %s: %s", path,
                    stdext::error_number_and_text(execError.Get()).c_str());
    }
    Log::Message2(Log::kDebug, kSecureExec, "PID %d ended with status %d after %lld ms: %s", pid,
                  result, stopwatch.Milliseconds(), path);
    return result;
  } catch (...) {
    if (!reaped) {
      TheAbandonedChildren().Add(pid);
    }
    throw;
  }
}

void SecureExecStderr(std::string& buffer, bool eof, pid_t pid) {
  const bool hasLine = buffer.find('\n') != std::string::npos;
  if (buffer.size() > kMaxPartialLine && !hasLine) {
    buffer.clear();
    return;
  }
  if (eof && !hasLine && !buffer.empty()) {
    buffer += '\n';
  }
  // One pass, however many lines there are; what is left moves once.
  size_t begin = 0;
  for (size_t end = buffer.find('\n'); end != std::string::npos; end = buffer.find('\n', begin)) {
    buffer[end] = '\0';
    ORX_LOG(Log::kError, "stderr from pid %d: %s", pid, buffer.c_str() + begin);
    begin = end + 1;
  }
  buffer.erase(0, begin);
}

}  // namespace Orx
