#include "util/crash_handler.h"

#include <algorithm>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iostream>

#include <cxxabi.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/vfs.h>
#include <sys/wait.h>
#include <ucontext.h>
#include <unistd.h>
#include <unwind.h>

#include "util/descriptor.h"
#include "util/log.h"
#include "util/retry.h"
#include "util/standard_error.h"

namespace {

constexpr int kSignals[] = {SIGSEGV, SIGABRT, SIGILL, SIGFPE, SIGBUS, SIGSYS};
constexpr unsigned int kReportLimitSecs = 10;
constexpr unsigned int kDemanglingLimitSecs = 2;
constexpr size_t kMaxFrames = 50;
constexpr size_t kMaxNameSize = 300;
constexpr size_t kMaxLineSize = 350;
constexpr const char* kFileName = "backtrace.log";
constexpr const char* kDefaultDirectory = "/tmp";
constexpr const char* kUnknownName = "<private>";

// Made ready before any crash.
struct State {
  bool registered;
  char processName[NAME_MAX + 1];
  char path[PATH_MAX];
  void* frames[kMaxFrames];
  size_t frameCount;
  const char* symbols[kMaxFrames];  // null where there is none
  char names[kMaxFrames][kMaxNameSize];
  ptrdiff_t offsets[kMaxFrames];
  char* demangled;
};

State state;

struct Registers {
  void* faultAddress = nullptr;
  void* pc = nullptr;
  void* sp = nullptr;
  void* lr = nullptr;
};

template <typename Number>
void* ToPointer(Number number) {
  // NOLINTNEXTLINE(performance-no-int-to-ptr): registers and the unwinder give numbers
  return reinterpret_cast<void*>(static_cast<uintptr_t>(number));
}

// What a processor has no counterpart for stays null.
Registers ReadRegisters(const void* context) {
  Registers registers;
  const mcontext_t& machine = static_cast<const ucontext_t*>(context)->uc_mcontext;
#if defined(__aarch64__)
  registers.faultAddress = ToPointer(machine.fault_address);
  registers.pc = ToPointer(machine.pc);
  registers.sp = ToPointer(machine.sp);
  registers.lr = ToPointer(machine.regs[30]);
#elif defined(__arm__)
  registers.faultAddress = ToPointer(machine.fault_address);
  registers.pc = ToPointer(machine.arm_pc);
  registers.sp = ToPointer(machine.arm_sp);
  registers.lr = ToPointer(machine.arm_lr);
#elif defined(__x86_64__)
  registers.faultAddress = ToPointer(machine.gregs[REG_CR2]);
  registers.pc = ToPointer(machine.gregs[REG_RIP]);
  registers.sp = ToPointer(machine.gregs[REG_RSP]);
#else
  static_cast<void>(machine);
#endif
  return registers;
}

void RestoreDefaultActions() {
  for (const int number : kSignals) {
    ::signal(number, SIG_DFL);
  }
}

void EndByAlarm(int /*number*/) {
  std::_Exit(EXIT_FAILURE);
}

// Whoever started the daemon may have blocked the alarm.
void SetAlarm() {
  ::signal(SIGALRM, EndByAlarm);
  sigset_t blocked;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGALRM);
  ::pthread_sigmask(SIG_UNBLOCK, &blocked, nullptr);
  ::alarm(kReportLimitSecs);
}

_Unwind_Reason_Code StoreFrame(_Unwind_Context* context, void* /*argument*/) {
  if (state.frameCount >= kMaxFrames) {
    return _URC_END_OF_STACK;
  }
  void* const address = ToPointer(_Unwind_GetIP(context));
  if (address != nullptr) {
    state.frames[state.frameCount++] = address;
  }
  return _URC_NO_REASON;
}

void SetName(size_t index, const char* name) {
  std::snprintf(state.names[index], kMaxNameSize, "%s", name);
}

// On 32-bit ARM the lowest bit of a function's address says that it is Thumb code.
uintptr_t StartOf(const Dl_info& symbol) {
  const auto start = reinterpret_cast<uintptr_t>(symbol.dli_saddr);
#if defined(__arm__)
  return start & ~uintptr_t{1};
#else
  return start;
#endif
}

// dladdr is not safe in a signal handler, since it locks; names are worth it, and the alarm bounds
// the harm.
void LookUp(size_t index) {
  Dl_info info = {};
  if (::dladdr(state.frames[index], &info) == 0 || info.dli_sname == nullptr) {
    state.symbols[index] = nullptr;
    state.offsets[index] = 0;
    SetName(index, kUnknownName);
    return;
  }
  state.symbols[index] = info.dli_sname;
  state.offsets[index] =
      static_cast<ptrdiff_t>(reinterpret_cast<uintptr_t>(state.frames[index]) - StartOf(info));
  SetName(index, info.dli_sname);
}

// Allocates, and may move the buffer that it gives to the demangler: what that returns is the
// buffer from then on.
void Demangle(size_t index) {
  size_t size = kMaxNameSize;
  int status = 0;
  char* const text = abi::__cxa_demangle(state.symbols[index], state.demangled, &size, &status);
  if (text != nullptr) {
    state.demangled = text;
    SetName(index, text);
  }
}

// Writes one line; one that does not fit is cut.
void WriteLine(int fd, const char* format, ...) __attribute__((format(printf, 2, 3)));
void WriteLine(int fd, const char* format, ...) {
  char line[kMaxLineSize] = {};
  va_list arguments;
  va_start(arguments, format);
  const int length = std::vsnprintf(line, sizeof line, format, arguments);
  va_end(arguments);
  if (length > 0) {
    const size_t size = std::min(static_cast<size_t>(length), sizeof line - 1);
    // Nobody is left to be told of a failure; the comparison keeps the compiler from asking.
    static_cast<void>(::write(fd, line, size) == 0);
  }
}

constexpr int kSecsADay = 24 * 60 * 60;

long DaysOfYear(long year) {
  return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0) ? 366 : 365;
}

long DaysOfMonth(long month, long year) {
  constexpr long kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return month == 1 ? DaysOfYear(year) - 337 : kDays[month];
}

struct UtcTime {
  long year, month, day, hour, minute, second;
};

// Not gmtime_r: it locks, and may be what the signal has interrupted.
UtcTime ToUtc(std::time_t time) {
  const auto secs = static_cast<long>(time % kSecsADay);
  auto days = static_cast<long>(time / kSecsADay);
  long year = 1970;
  for (; days >= DaysOfYear(year); ++year) {
    days -= DaysOfYear(year);
  }
  long month = 0;
  for (; days >= DaysOfMonth(month, year); ++month) {
    days -= DaysOfMonth(month, year);
  }
  return {year, month + 1, days + 1, secs / 3600, secs / 60 % 60, secs % 60};
}

// What is known of a crash before its stack is looked at.
struct Cause {
  std::time_t time;
  int number;
  void* faultAddress;
  Registers registers;
};

void WriteHeading(int fd, const Cause& cause) {
  const UtcTime time = ToUtc(cause.time);
  const Registers& registers = cause.registers;
  WriteLine(fd, "(%04ld-%02ld-%02ld %02ld:%02ld:%02ld) Process exit due to signal: %d\n", time.year,
            time.month, time.day, time.hour, time.minute, time.second, cause.number);
  // The address comes twice, from the signal and from the processor, deliberately.
  WriteLine(fd, "Fault Address: %p\n", cause.faultAddress);
  WriteLine(fd, "Fault address: %p PC: %p SP: %p LR: %p\n", registers.faultAddress, registers.pc,
            registers.sp, registers.lr);
  WriteLine(fd, "Backtrace:\n");
}

void WriteFrame(int fd, size_t index) {
  const ptrdiff_t offset = state.offsets[index];
  WriteLine(fd, "%p %s %s %#tx\n", state.frames[index], state.names[index], offset >= 1 ? "+" : "",
            offset);
}

void WriteEnd(int fd) {
  WriteLine(fd, "--------------------------------------------------\n\n");
}

void WriteRecord(int fd, const Cause& cause) {
  WriteHeading(fd, cause);
  for (size_t i = 0; i < state.frameCount; ++i) {
    WriteFrame(fd, i);
  }
  WriteEnd(fd);
}

// For the same lines with other names. A file system that has no limit says that it has no blocks.
bool HasRoomForLongerNames(int fd) {
  constexpr uint64_t kMaxGrowth = kMaxFrames * kMaxLineSize;
  struct statfs info = {};  // not fstatvfs, which may look through /proc/mounts
  return ::fstatfs(fd, &info) != 0 || info.f_blocks == 0 ||
         info.f_bavail > kMaxGrowth / static_cast<uint64_t>(info.f_bsize);
}

// In a copy of the process, to which whatever happens does no harm: puts the record, which begins
// at `start`, anew with names that people read.
[[noreturn]] void RewriteRecord(int fd, off_t start, const Cause& cause) {
  ::prctl(PR_SET_DUMPABLE, 0);  // no core file of its own
  ::close(STDERR_FILENO);       // where the C library would say again what is wrong with the heap
  ::signal(SIGALRM, SIG_DFL);
  ::alarm(kDemanglingLimitSecs);
  for (size_t i = 0; i < state.frameCount; ++i) {
    if (state.symbols[i] != nullptr) {
      Demangle(i);
    }
  }
  ::alarm(0);  // nothing waits from here on, and half a record would be worse than the first one
  if (HasRoomForLongerNames(fd) && ::ftruncate(fd, start) == 0) {
    WriteRecord(fd, cause);
  }
  // Not _exit: ThreadSanitizer's takes a lock that another thread may have held as this was copied.
  ::syscall(SYS_exit_group, EXIT_SUCCESS);
  __builtin_unreachable();
}

// Each step may be the last one: what is known is in the file before the next one is taken. The
// demangler allocates. Where the heap is damaged or locked, that never ends, or ends the process;
// so a copy of the process does it, which the C library's fork is no way to, since it takes the
// heap's lock as well.
void LeaveRecord(int fd, const Cause& cause) {
  const off_t start = ::lseek(fd, 0, SEEK_END);
  WriteHeading(fd, cause);
  _Unwind_Backtrace(StoreFrame, nullptr);
  for (size_t i = 0; i < state.frameCount; ++i) {
    LookUp(i);
    WriteFrame(fd, i);
  }
  WriteEnd(fd);

  const auto copy = static_cast<pid_t>(::syscall(SYS_clone, SIGCHLD, 0, 0, 0, 0));
  if (copy == 0) {
    RewriteRecord(fd, start, cause);
  }
  if (copy > 0) {
    stdext::retry_on_interrupt([copy] { return ::waitpid(copy, nullptr, 0); });
  }
}

// Runs once: the default actions are back before it does anything else.
void CrashHandler(int number, siginfo_t* info, void* context) {
  RestoreDefaultActions();
  SetAlarm();

  const int fd = stdext::open_only_here(state.path, O_APPEND, 0644);
  if (fd >= 0) {
    LeaveRecord(fd, {std::time(nullptr), number, info->si_addr, ReadRegisters(context)});
    ::close(fd);
  }
  // The logger takes its lock, and the streams and strsignal may allocate: the alarm again.
  const char* const text = ::strsignal(number);
  Orx::Log::Message2(Orx::Log::kError, "void {anonymous}::CrashHandler(int, siginfo_t*, void*)",
                     "Process exit due to signal: %d (%s)", number, text);
  if (stdext::standard_error_takes_a_line()) {
    std::cerr << "Process exit due to signal: " << number << "(" << text << ")" << std::endl;
  }
  ::raise(number);
}

void InstallHandler(int number) {
  struct sigaction action = {};
  action.sa_sigaction = CrashHandler;
  action.sa_flags = SA_SIGINFO;
  sigemptyset(&action.sa_mask);
  ::sigaction(number, &action, nullptr);
}

}  // namespace

namespace Mirel {

void RegisterCrashHandler(const std::string& processName) {
  if (state.registered) {
    return;
  }
  for (const int number : kSignals) {
    InstallHandler(number);
  }
  std::memset(state.names, 0, sizeof state.names);
  std::memset(state.frames, 0, sizeof state.frames);
  state.frameCount = 0;
  state.demangled = static_cast<char*>(std::calloc(1, kMaxNameSize));
  ::tzset();  // or the first use of gmtime_r, for the log line, would read the time zone's file
  const std::string name = processName.substr(processName.rfind('/') + 1);
  std::snprintf(state.processName, sizeof state.processName, "%s", name.c_str());
  SetBacktraceDirectory(kDefaultDirectory);
  state.registered = true;
}

void SetBacktraceDirectory(const std::string& directory) {
  std::snprintf(state.path, sizeof state.path, "%s/%s-%s", directory.c_str(), state.processName,
                kFileName);
}

}  // namespace Mirel
