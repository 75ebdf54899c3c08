#include "ctl/hook_signals.h"

#include <cstdio>
#include <mutex>
#include <thread>

#include <pthread.h>
#include <unistd.h>

#include "hooks/running_programs.h"
#include "util/close_on_exec.h"
#include "util/retry.h"

namespace tavlo::ctl {

namespace {

constexpr int kSignalled = 128;

void WaitAndEnd(const sigset_t& signals, const std::string& bodyPath) {
  const int number =
      stdext::retry_on_interrupt([&signals] { return ::sigtimedwait(&signals, nullptr, nullptr); });
  const std::lock_guard<std::mutex> lock(stdext::exec_mutex());  // no other script begins
  std::remove(bodyPath.c_str());
  // It ends in here, where the thread that runs the script is held up, or that would tell of the
  // script's end.
  Orx::TheRunningPrograms().ForEach([number](const Orx::RunningProgram& script) {
    ::kill(script.pid, SIGKILL);
    std::fprintf(stderr, "tavloctl hook: killed %s, PID %d\n", script.path, script.pid);
    ::_exit(kSignalled + number);
  });
  ::_exit(kSignalled + number);
}

}  // namespace

sigset_t BlockSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGHUP);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  ::signal(SIGPIPE, SIG_IGN);
  ::signal(SIGXFSZ, SIG_IGN);
  ::signal(SIGCHLD, SIG_DFL);  // ignored, it would lose the ends of scripts
  return signals;
}

void EndOnSignal(const sigset_t& signals, const std::string& bodyPath) {
  std::thread(WaitAndEnd, signals, bodyPath).detach();
}

}  // namespace tavlo::ctl
