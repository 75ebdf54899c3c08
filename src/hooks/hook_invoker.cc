#include "hooks/hook_invoker.h"

#include <algorithm>
#include <initializer_list>

#include <unistd.h>

#include "hooks/secure_exec.h"
#include "util/directory.h"

namespace Orx {

namespace {

constexpr ssize_t kMaxOutput = 1000000;
constexpr unsigned int kTimeoutSecs = 300;

bool IsOneOf(const std::string& value, std::initializer_list<const char*> accepted) {
  return std::find(accepted.begin(), accepted.end(), value) != accepted.end();
}

Status Invalid(const std::string& argument, const std::string& value) {
  return Status::Failure(argument + " is invalid: '" + value + "'");
}

Status ListDirectory(const std::string& dir, std::list<std::string>* names) {
  return stdext::list_directory(dir, names)
             ? Status::Ok()
             : Status::Failure("failed to list directory '" + dir + "'");
}

Status RunHookDirectory(const std::string& dir, const std::list<std::string>& names,
                        const std::vector<const char*>& args, int* exitCode, std::string* output) {
  if (exitCode != nullptr) {
    *exitCode = 0;
  }
  for (const std::string& name : names) {
    const std::string path = dir + "/" + name;
    std::string captured;
    const int result =
        SecureExec(path.c_str(), args, std::string(), output != nullptr ? &captured : nullptr,
                   kMaxOutput, kTimeoutSecs);
    if (result != 0 && result != 1) {
      return Status::Failure("failed to call script '" + path + "' as " + std::to_string(result));
    }
    if (output != nullptr) {
      *output += captured;
    }
    if (exitCode != nullptr) {
      *exitCode |= result;
    }
  }
  return Status::Ok();
}

}  // namespace

HookInvoker::HookInvoker(const std::string& internalHooksDirectory,
                         const std::string& externalHooksDirectory)
    : internalHooksDirectory_(internalHooksDirectory),
      externalHooksDirectory_(externalHooksDirectory) {}

Status HookInvoker::SettingsUpdate(const std::string& reason) {
  if (!IsOneOf(reason, {"user_settings", "device_list", "profile_list", "router_info"})) {
    return Invalid("settings_update.reason", reason);
  }
  return Invoke("settings_update", {"--reason", reason.c_str()}, nullptr, nullptr);
}

// The messages say "device_block" although the hook is "block_device": they are known by that name.
Status HookInvoker::BlockDevice(const std::string& action, const std::string& mac) {
  if (!IsOneOf(action, {"block", "unblock", "reset"})) {
    return Invalid("device_block.action", action);
  }
  if (action == "reset") {
    return Invoke("block_device", {"--action", action.c_str()}, nullptr, nullptr);
  }
  if (mac.empty()) {
    return Status::Failure("device_block.mac is empty");
  }
  return Invoke("block_device", {"--action", action.c_str(), "--mac", mac.c_str()}, nullptr,
                nullptr);
}

Status HookInvoker::HttpBlock(const std::string& reason, const std::string& mac,
                              const std::string& url) {
  if (url.empty()) {
    return Status::Failure("http_block.url is empty");
  }
  if (!IsOneOf(reason, {"browsing_protection", "antibot", "tracking_protection",
                        "content_filtering", "blacklist"})) {
    return Invalid("http_block.reason", reason);
  }
  if (mac.empty()) {
    return Status::Failure("http_block.mac is empty");
  }
  return Invoke("http_block",
                {"--url", url.c_str(), "--mac", mac.c_str(), "--reason", reason.c_str()}, nullptr,
                nullptr);
}

// Tracking protection works on HTTP alone.
Status HookInvoker::DnsBlock(const std::string& reason, const std::string& mac,
                             const std::string& hostname) {
  if (hostname.empty()) {
    return Status::Failure("dns_block.hostname is empty");
  }
  if (!IsOneOf(reason, {"browsing_protection", "antibot", "content_filtering", "blacklist"})) {
    return Invalid("dns_block.reason", reason);
  }
  if (mac.empty()) {
    return Status::Failure("dns_block.mac is empty");
  }
  return Invoke("dns_block",
                {"--hostname", hostname.c_str(), "--mac", mac.c_str(), "--reason", reason.c_str()},
                nullptr, nullptr);
}

Status HookInvoker::DeviceDetected(const std::string& mac) {
  if (mac.empty()) {
    return Status::Failure("device_detected.mac is empty");
  }
  return Invoke("device_detected", {"--mac", mac.c_str()}, nullptr, nullptr);
}

Status HookInvoker::IotProtection(const std::string& reason, const std::string& mac,
                                  const std::string& detail) {
  if (reason != "flow_counter") {
    return Invalid("iot_protection.reason", reason);
  }
  if (mac.empty() || detail.empty()) {
    return Status::Failure("iot_protection.mac or iot_protection.detail is empty");
  }
  return Invoke("iot_protection",
                {"--reason", reason.c_str(), "--mac", mac.c_str(), "--detail", detail.c_str()},
                nullptr, nullptr);
}

Status HookInvoker::Agent(const std::string& method, const std::string& uri,
                          const std::string& data, int* exitCode) {
  if (method.empty() || uri.empty()) {
    return Status::Failure("agent.method or agent.uri empty");
  }
  std::vector<const char*> args = {"--method", method.c_str(), "--uri", uri.c_str()};
  if (!data.empty()) {
    args.insert(args.end(), {"--data", data.c_str()});
  }
  return Invoke("agent", args, exitCode, nullptr);
}

Status HookInvoker::Invoke(const std::string& name, const std::vector<const char*>& args,
                           int* exitCode, std::string* output) {
  if (exitCode != nullptr) {
    *exitCode = 0;
  }
  if (output != nullptr) {
    output->clear();
  }
  std::list<std::string> names;
  const std::string dir = internalHooksDirectory_ + "/" + name;
  Status status = ListDirectory(dir, &names);
  if (status.IsOk()) {
    status = RunHookDirectory(dir, names, args, exitCode, output);
  }
  const std::string extDir = externalHooksDirectory_ + "/" + name;
  if (!status.IsOk() || ::access(extDir.c_str(), F_OK) != 0) {
    return status;
  }
  status = ListDirectory(extDir, &names);
  return status.IsOk() ? RunHookDirectory(extDir, names, args, exitCode, output) : status;
}

}  // namespace Orx
