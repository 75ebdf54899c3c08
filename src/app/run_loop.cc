#include "app/run_loop.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "agent/callback_guard.h"
#include "app/start_up.h"
#include "app/thread_monitor.h"
#include "hooks/key_value_storage.h"
#include "hooks/running_programs.h"
#include "util/error_text.h"
#include "util/file.h"
#include "util/log.h"
#include "util/router_util.h"

using Orx::MonotonicTime;
using tavlo::AgentHost;
using tavlo::RunGuarded;
using tavlo::TheProcess;

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kRun = "void Run()";
constexpr std::chrono::seconds kLongestSilence(60);
constexpr std::chrono::seconds kLanAddressPeriod(60);
constexpr std::chrono::seconds kPauseAfterFailedWait(5);
constexpr timespec kLongestWait = {60, 0};

// What one pass of the loop leaves for the next.
struct LoopState {
  int waitResult = -1;
  int signal = 0;  // the last one received, and who sent it
  pid_t sender = 0;
  time_t routerInfoTime = 0;
  std::optional<MonotonicTime> lanAddressTime;
};

// Never joined: the process ends under them.
std::vector<std::thread>& Workers() {
  static std::vector<std::thread> workers;
  return workers;
}

void RunHost(const char* name, AgentHost* host, std::atomic<size_t>* started) {
  Orx::ThreadMonitor& monitor = Orx::TheThreadMonitor();
  const Orx::ThreadIdentity self = Orx::CurrentThreadIdentity();
  monitor.Register(self, {name, kLongestSilence, Clock::now()});
  host->LogEndpoint();
  ++*started;
  host->Run();
  monitor.Unregister(self);
}

// Starts both host threads and waits until they are registered. Returns false, after a logged
// error, when the system has no thread for one of them.
bool StartWorkers() {
  std::atomic<size_t> started(0);
  bool ok = true;
  try {
    Workers().emplace_back(RunHost, "tavlo::httpAgent", TheProcess().httpHost.get(), &started);
    Workers().emplace_back(RunHost, "tavlo::httpsAgent", TheProcess().httpsHost.get(), &started);
  } catch (const std::system_error& error) {
    Orx::Log::Message2(Orx::Log::kError, kRun, "Failed to start a thread: %s", error.what());
    TheProcess().exitStatus = EXIT_FAILURE;
    ok = false;
  }
  while (started < Workers().size()) {
    std::this_thread::yield();
  }
  return ok;
}

// Logs the silent thread, if there is one.
bool HasSilentThread(MonotonicTime now) {
  Orx::ThreadMonitor& monitor = Orx::TheThreadMonitor();
  const Orx::ThreadIdentity silent = monitor.FindSilentThread(now);
  if (silent == 0) {
    return false;
  }
  const std::string name = monitor.Name(silent);
  const auto silence =
      std::chrono::duration_cast<std::chrono::seconds>(monitor.Silence(silent, now));
  Orx::Log::Message2(Orx::Log::kError, kRun,
                     "Exit as missing thread hearbeat with id=%s interval=%lds", name.c_str(),
                     static_cast<long>(silence.count()));
  // The usual cause: a script that this listener has called, or whose end it waits for. It is not
  // ended: whoever started the daemon finds it by these.
  Orx::TheRunningPrograms().ForEach([](const Orx::RunningProgram& script) {
    Orx::Log::Message2(Orx::Log::kError, kRun, "Script left running: PID %d: %s", script.pid,
                       script.path);
  });
  return true;
}

// In whole seconds; 0 when the file cannot be examined.
time_t ModificationTime(const std::string& path) {
  struct stat info = {};
  return ::stat(path.c_str(), &info) == 0 ? info.st_mtime : 0;
}

// A file that is missing at the start is not read before it comes.
void TellOfMissingRouterInformation() {
  const std::string path = TheProcess().settings->RouterInfoPath();
  if (::access(path.c_str(), F_OK) != 0) {
    Orx::Log::Message2(Orx::Log::kError, kRun, "Failed to find the router information file %s: %s",
                       path.c_str(), stdext::error_number_and_text(errno).c_str());
  }
}

void RefreshPairingKey(LoopState& state) {
  const time_t time = ModificationTime(TheProcess().settings->RouterInfoPath());
  if (state.waitResult == SIGHUP || time != state.routerInfoTime) {
    Orx::Log::Message2(Orx::Log::kDebug, kRun, "Update pairing key");
    UpdatePairingKey();
    state.routerInfoTime = time;
  }
}

void RefreshLanAddress(LoopState& state, MonotonicTime now) {
  if (!state.lanAddressTime || now - *state.lanAddressTime >= kLanAddressPeriod) {
    Orx::Log::Message2(Orx::Log::kDebug, kRun, "Update LAN address");
    UpdateLanAddress();
    state.lanAddressTime = now;
  }
}

// Returns false when the daemon is to stop.
bool WaitForSignal(LoopState& state) {
  siginfo_t info = {};
  state.waitResult = ::sigtimedwait(&TheProcess().signals, &info, &kLongestWait);
  if (state.waitResult < 0) {
    if (errno != EINTR && errno != EAGAIN) {
      Orx::Log::Message2(Orx::Log::kError, kRun, "sigtimedwait failed as %s",
                         stdext::error_number_and_text(errno).c_str());
      std::this_thread::sleep_for(kPauseAfterFailedWait);
    }
    return true;
  }
  state.signal = info.si_signo;
  state.sender = info.si_pid;
  if (state.signal == SIGTERM || state.signal == SIGINT) {
    Orx::Log::Message2(Orx::Log::kInfo, kRun, "Exit by signal %i, from pid %i", state.signal,
                       state.sender);
    return false;
  }
  return true;
}

}  // namespace

void Run() {
  ORX_LOG_SCOPE();
  if (!StartWorkers()) {
    return;
  }
  ORX_LOG(Orx::Log::kInfo, "tavlo started");
  TellOfMissingRouterInformation();
  LoopState state;
  do {
    // On every pass, with the last signal again after a mere time-out: it shows that the loop
    // lives.
    ORX_LOG(Orx::Log::kDebug, "Got signal %i, from pid %i", state.signal, state.sender);
    const MonotonicTime now = Clock::now();
    if (HasSilentThread(now)) {
      return;
    }
    if (state.waitResult == SIGHUP) {
      ORX_LOG(Orx::Log::kDebug, "HUP");
      Orx::Log::Reopen();
    }
    // What there is no memory for is tried again at the next pass, whether the file changes or not.
    if (!RunGuarded(kRun, [&state] { RefreshPairingKey(state); })) {
      state.routerInfoTime = 0;
    }
    RunGuarded(kRun, [&state, now] { RefreshLanAddress(state, now); });
  } while (WaitForSignal(state));
}

void UpdatePairingKey() {
  std::string text;
  const Orx::Status status =
      stdext::file(TheProcess().settings->RouterInfoPath()).read(stdext::kMaxFileSize, &text);
  if (!status.IsOk()) {
    ORX_LOG(Orx::Log::kError, "%s", status.Message().c_str());
    return;
  }
  const auto values = Orx::KeyValueStorage::StringToMap(text);
  const auto key = values.find("pairing_key");
  if (key != values.end()) {
    TheProcess().httpsHost->SetPairingKey(key->second);
  }
}

void UpdateLanAddress() {
  std::string address;
  unsigned char prefixLength = 0;
  const Orx::Status status = Orx::RouterUtil::GetIpAddrAndPrefix(
      TheProcess().settings->LanInterface(), AF_INET, &address, &prefixLength);
  if (!status.IsOk()) {
    ORX_LOG(Orx::Log::kError, "%s", status.Message().c_str());
    return;
  }
  TheProcess().httpHost->BindSrcAddr(address);
  TheProcess().httpsHost->BindSrcAddr(address);
}
