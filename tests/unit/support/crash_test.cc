#include "support/crash_test.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/child.h"
#include "util/crash_handler.h"

#if defined(__arm__)
extern "C" void send_signal(int process, int thread, int number);
__asm__(
    ".pushsection .text\n"
    ".arm\n"
    ".globl send_signal\n"
    ".type send_signal, %function\n"
    "send_signal:\n"
    ".fnstart\n"
    "push {r7, lr}\n"
    ".save {r7, lr}\n"
    "mov r7, #268\n"  // tgkill
    "svc #0\n"
    "pop {r7, pc}\n"
    ".fnend\n"
    ".size send_signal, . - send_signal\n"
    ".popsection\n");
#endif

namespace test {

using testing::Contains;
using testing::HasSubstr;
using testing::Not;

int CrashTest::Crash(const std::function<void()>& body) const {
  return RunInChild([&] {
    rlimit core = {};
    ::getrlimit(RLIMIT_CORE, &core);
    core.rlim_cur = 0;
    ::setrlimit(RLIMIT_CORE, &core);
    const int console =
        ::open((directory_ / "console").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    ::dup2(console, STDERR_FILENO);
    Mirel::RegisterCrashHandler("/usr/sbin/program");
    Mirel::SetBacktraceDirectory(directory_.Path());
    body();
  });
}

void CrashTest::ExpectEndedBy(int status, int number) {
  EXPECT_TRUE(WIFSIGNALED(status)) << status;
  EXPECT_EQ(WTERMSIG(status), number);
}

void CrashTest::ExpectReported(int number, const std::string& text) const {
  const std::string line = "Process exit due to signal: " + std::to_string(number);
  EXPECT_THAT(log_.Lines(),
              Contains("ERROR: void {anonymous}::CrashHandler: " + line + " (" + text + ")"));
  EXPECT_EQ(Console(), line + "(" + text + ")\n");
}

void CrashTest::ExpectNotReported() const {
  EXPECT_THAT(log_.Lines(), Not(Contains(HasSubstr("CrashHandler"))));
  EXPECT_EQ(Console(), "");
}

void Raise(int number) {
#if defined(__arm__)
  send_signal(::getpid(), static_cast<int>(::syscall(SYS_gettid)), number);
#else
  ::raise(number);
#endif
}

std::string FaultAddress(uintptr_t address) {
  bool isLeftOut = false;
#if defined(__arm__)
  isLeftOut = std::getenv("TAVLO_EMULATOR") != nullptr;
#endif
  char text[32] = {};
  // NOLINTNEXTLINE(performance-no-int-to-ptr): it comes as a number
  std::snprintf(text, sizeof text, "%p", reinterpret_cast<void*>(isLeftOut ? 0 : address));
  return text;
}

size_t CountOf(const std::string& text, const std::string& part) {
  size_t count = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
    ++count;
  }
  return count;
}

}  // namespace test
