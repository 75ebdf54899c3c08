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
#include <ucontext.h>
#include <unistd.h>
#include <unwind.h>

#include "util/log.h"

namespace {

constexpr int kSignals[] = {SIGSEGV, SIGABRT, SIGILL, SIGFPE, SIGBUS, SIGSYS};
constexpr unsigned int kReportLimitSecs = 10;
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

// The one thing here that always allocates is the demangler, which also may move the buffer that it
// was given: what it returns is the buffer from then on. It is not safe in a signal handler, and
// neither is dladdr, which locks; names are worth it, and the alarm bounds the harm.
const char* Demangle(const char* symbol) {
  size_t size = kMaxNameSize;
  int status = 0;
  char* const text = abi::__cxa_demangle(symbol, state.demangled, &size, &status);
  if (text == nullptr) {
    return symbol;
  }
  state.demangled = text;
  return text;
}

void SetName(size_t index, const char* name) {
  std::snprintf(state.names[index], kMaxNameSize, "%s", name);
}

void NameFrame(size_t index) {
  Dl_info info = {};
  const char* name = kUnknownName;
  state.offsets[index] = 0;
  if (::dladdr(state.frames[index], &info) != 0 && info.dli_sname != nullptr) {
    name = Demangle(info.dli_sname);
    state.offsets[index] =
        static_cast<char*>(state.frames[index]) - static_cast<char*>(info.dli_saddr);
  }
  SetName(index, name);
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

void WriteRecord(int fd, int number, const siginfo_t& info, const Registers& registers) {
  char time[25] = {};
  const std::time_t now = std::time(nullptr);
  tm utc = {};
  ::gmtime_r(&now, &utc);
  std::strftime(time, sizeof time, "%Y-%m-%d %H:%M:%S", &utc);

  WriteLine(fd, "(%s) Process exit due to signal: %d\n", time, number);
  // The address comes twice, from the signal and from the processor, deliberately.
  WriteLine(fd, "Fault Address: %p\n", info.si_addr);
  WriteLine(fd, "Fault address: %p PC: %p SP: %p LR: %p\n", registers.faultAddress, registers.pc,
            registers.sp, registers.lr);
  WriteLine(fd, "Backtrace:\n");
  for (size_t i = 0; i < state.frameCount; ++i) {
    const char* const sign = state.offsets[i] >= 1 ? "+" : "";
    WriteLine(fd, "%p %s %s %#tx\n", state.frames[i], state.names[i], sign, state.offsets[i]);
  }
  WriteLine(fd, "--------------------------------------------------\n\n");
}

// Runs once: the default actions are back before it does anything else.
void CrashHandler(int number, siginfo_t* info, void* context) {
  RestoreDefaultActions();
  SetAlarm();

  _Unwind_Backtrace(StoreFrame, nullptr);
  for (size_t i = 0; i < state.frameCount; ++i) {
    NameFrame(i);
  }
  const int fd = ::open(state.path, O_WRONLY | O_CREAT | O_APPEND, 0644);
  if (fd >= 0) {
    WriteRecord(fd, number, *info, ReadRegisters(context));
    ::close(fd);
  }
  // The logger takes its lock, and the streams and strsignal may allocate: the alarm again.
  const char* const text = ::strsignal(number);
  Orx::Log::Message2(Orx::Log::kError, "void {anonymous}::CrashHandler(int, siginfo_t*, void*)",
                     "Process exit due to signal: %d (%s)", number, text);
  std::cerr << "Process exit due to signal: " << number << "(" << text << ")" << std::endl;
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
  ::tzset();  // or the first use of gmtime_r would read the time zone's file
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
