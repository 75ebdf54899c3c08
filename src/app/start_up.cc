#include "app/start_up.h"

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>

#include <event2/thread.h>

#include "agent/libevent_log.h"
#include "agent/libevent_memory.h"
#include "agent/openssl_memory.h"
#include "app/thread_monitor.h"
#include "util/crash_handler.h"
#include "util/log.h"
#include "util/privilege.h"

using tavlo::AgentHost;
using tavlo::AppSettings;
using tavlo::ProcessObjects;
using tavlo::TheProcess;

namespace {

constexpr const char* kInit = "bool Init(const std::string&)";

// Blocks the run loop's signals in this thread and, by inheritance, in all that it will start.
bool BlockSignals(sigset_t* signals) {
  sigemptyset(signals);
  sigaddset(signals, SIGHUP);
  sigaddset(signals, SIGTERM);
  sigaddset(signals, SIGINT);
  const int error = ::pthread_sigmask(SIG_BLOCK, signals, nullptr);
  if (error != 0) {
    Orx::Log::Message2(Orx::Log::kError, kInit, "pthread_sigmask failed as %d", error);
  }
  return error == 0;
}

std::unique_ptr<AgentHost> MakeHost(const ProcessObjects& process, bool secure) {
  const AppSettings& settings = *process.settings;
  return std::make_unique<AgentHost>(
      process.hookInvoker.get(), secure, settings.AgentDataPath(), settings.AgentDirectory(),
      settings.DeviceDiscoveryPath(), secure ? settings.AgentHttpsPort() : settings.AgentHttpPort(),
      settings.AgentDstAddr(), settings.AgentDstPort(), settings.AgentPrefix(), OnThreadHeartbeat);
}

// An empty name leaves the process as it is.
bool BecomeUser(const std::string& user) {
  if (user.empty()) {
    return true;
  }
  const Orx::Status status = stdext::drop_privilege(user);
  if (!status.IsOk()) {
    Orx::Log::Message2(Orx::Log::kError, kInit, "Failed to change user identity to '%s': %s",
                       user.c_str(), status.Message().c_str());
    return false;
  }
  Orx::Log::Message2(Orx::Log::kDebug, kInit, "Running as '%s'", user.c_str());
  return true;
}

// The steps of `Init`, whose name their log lines carry.
bool PrepareProcess(const std::string& configPath) {
  ProcessObjects& process = TheProcess();
  if (!BlockSignals(&process.signals)) {
    return false;
  }
  if (::signal(SIGPIPE, SIG_IGN) == SIG_ERR) {
    Orx::Log::Message2(Orx::Log::kError, kInit, "Failed to ignore SIGPIPE");
    return false;
  }
  tavlo::LimitOpensslBlocks();
  tavlo::EndWhenLibeventGetsNoMemory();
  tavlo::RouteLibeventLog();
  if (evthread_use_pthreads() < 0) {
    Orx::Log::Message2(Orx::Log::kError, kInit, "Failed to configure evthreads");
    return false;
  }
  process.settings = std::make_unique<AppSettings>();
  if (!LoadAppSettings(configPath, process.settings.get())) {
    Orx::Log::Message2(Orx::Log::kError, kInit, "Failed to read config file from: %s",
                       configPath.c_str());
    return false;
  }
  Mirel::SetBacktraceDirectory(process.settings->RootPrefix() + "/tmp");
  process.httpHost.reset();  // with their ports, and before what they use
  process.httpsHost.reset();
  process.hookInvoker = std::make_unique<Orx::HookInvoker>(
      process.settings->InternalHooksDirectory(), process.settings->ExternalHooksDirectory());
  try {
    process.httpHost = MakeHost(process, false);
    process.httpsHost = MakeHost(process, true);
  } catch (const std::exception& error) {
    Orx::Log::Message2(Orx::Log::kError, kInit, "Failed to create AgentHost: %s", error.what());
    return false;
  }
  // Last: what stands before it may need root's rights.
  return BecomeUser(process.settings->AgentUser());
}

}  // namespace

ProcessObjects& tavlo::TheProcess() {
  static ProcessObjects process;
  return process;
}

bool Init(const std::string& configPath) {
  ORX_LOG_SCOPE();
  try {
    return PrepareProcess(configPath);
  } catch (const std::exception& error) {
    ORX_LOG(Orx::Log::kError, "Failed to start: %s", error.what());
    return false;
  }
}

bool LoadAppSettings(const std::string& path, AppSettings* settings) {
  return path.empty() || settings->LoadConfigFile(path, nullptr);
}

void PrintConfigValue(const std::string& configPath, const std::string& key) {
  AppSettings settings;
  if (!LoadAppSettings(configPath, &settings)) {
    ORX_LOG(Orx::Log::kError, "Failed to read config file from: %s", configPath.c_str());
    std::exit(EXIT_FAILURE);
  }
  std::string value;
  if (!settings.GetConfigValue(key, &value)) {
    std::cerr << "Unknown config key: " << key << '\n';
    std::exit(EXIT_FAILURE);
  }
  std::cout << value << std::endl;
  // Not every C library tells the stream of a failure.
  std::exit(std::cout && std::ferror(stdout) == 0 ? EXIT_SUCCESS : EXIT_FAILURE);
}
