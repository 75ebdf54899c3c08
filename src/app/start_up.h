#pragma once

#include <cstdlib>
#include <memory>
#include <string>

#include <signal.h>

#include "agent/agent_host.h"
#include "hooks/hook_invoker.h"
#include "settings/app_settings.h"

namespace tavlo {

/// What lives as long as the process. Filled by `Init`, on the main thread, before any other thread
/// exists.
struct ProcessObjects {
  sigset_t signals;  ///< what the run loop waits for, blocked everywhere else
  std::unique_ptr<AppSettings> settings;
  std::unique_ptr<Orx::HookInvoker> hookInvoker;
  std::unique_ptr<AgentHost> httpHost;
  std::unique_ptr<AgentHost> httpsHost;
  int exitStatus = EXIT_SUCCESS;  ///< set by `Run`, for the process
};

ProcessObjects& TheProcess();

}  // namespace tavlo

/// Prepares everything that `Run` needs; an empty path stands for the built-in settings. Returns
/// false, after a logged error that names the cause, when the daemon cannot run.
bool Init(const std::string& configPath);

/// Reads the configuration file into `settings`; an empty path leaves them as they are. Returns
/// false when the file cannot be read or parsed.
bool LoadAppSettings(const std::string& path, tavlo::AppSettings* settings);

/// Prints the value of one configuration key on standard output and ends the process, with status 0
/// or, when the file or the key is not good, 1.
[[noreturn]] void PrintConfigValue(const std::string& configPath, const std::string& key);
