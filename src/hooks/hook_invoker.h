#pragma once

#include <list>
#include <string>
#include <vector>

#include "util/status.h"

namespace Orx {

/// Turns events into runs of the firmware's hook scripts. The scripts of an event are the entries
/// of the directory of its name below the internal root, and then of the one below the external
/// root, each in `alphasort` order.
///
/// Each event checks its arguments and hands them to every script as flag and value. A script
/// answers by its exit status, 0 or 1; anything else (another status, a signal, more than 300
/// seconds) is a failure, after which no further script runs. The operations block until the
/// scripts have ended. They change nothing in the object: any thread may call them. Failures are
/// returned, not logged. They throw only what `SecureExec` throws.
class HookInvoker {
 public:
  /// The internal directory of every event that is invoked must exist; the external one need not.
  HookInvoker(const std::string& internalHooksDirectory, const std::string& externalHooksDirectory);
  HookInvoker(const HookInvoker&) = delete;
  HookInvoker& operator=(const HookInvoker&) = delete;
  virtual ~HookInvoker() = default;

  virtual Status SettingsUpdate(const std::string& reason);
  virtual Status BlockDevice(const std::string& action, const std::string& mac);
  virtual Status HttpBlock(const std::string& reason, const std::string& mac,
                           const std::string& url);
  virtual Status DnsBlock(const std::string& reason, const std::string& mac,
                          const std::string& hostname);
  virtual Status DeviceDetected(const std::string& mac);
  virtual Status IotProtection(const std::string& reason, const std::string& mac,
                               const std::string& detail);

  /// `data` is the path of a file with the request's body, or empty. `exitCode` as for `Invoke`.
  virtual Status Agent(const std::string& method, const std::string& uri, const std::string& data,
                       int* exitCode);

  /// Runs the hooks named `name`. `exitCode`, which may be null, becomes 1 when a script of the
  /// last directory that was run exited with 1, else 0: an external directory, even an empty one,
  /// overrules what the internal scripts said, deliberately. `output`, which may be null, receives
  /// what the scripts printed, one after another; then a script that prints 1000000 bytes fails.
  Status Invoke(const std::string& name, const std::vector<const char*>& args, int* exitCode,
                std::string* output);

 private:
  std::string internalHooksDirectory_;
  std::string externalHooksDirectory_;
};

}  // namespace Orx
