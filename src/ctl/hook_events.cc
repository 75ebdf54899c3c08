#include "ctl/hook_events.h"

#include <algorithm>
#include <iterator>

namespace tavlo::ctl {

namespace {

constexpr HookEvent kEvents[] = {
    {"agent",
     {"method", "uri", "data"},
     true,
     [](Orx::HookInvoker& hooks, FlagValues& values, int* exitCode) {
       return hooks.Agent(values["method"], values["uri"], values["data"], exitCode);
     }},
    {"block_device",
     {"action", "mac"},
     false,
     [](Orx::HookInvoker& hooks, FlagValues& values, int*) {
       return hooks.BlockDevice(values["action"], values["mac"]);
     }},
    {"device_detected",
     {"mac"},
     false,
     [](Orx::HookInvoker& hooks, FlagValues& values, int*) {
       return hooks.DeviceDetected(values["mac"]);
     }},
    {"dns_block",
     {"hostname", "mac", "reason"},
     false,
     [](Orx::HookInvoker& hooks, FlagValues& values, int*) {
       return hooks.DnsBlock(values["reason"], values["mac"], values["hostname"]);
     }},
    {"http_block",
     {"url", "mac", "reason"},
     false,
     [](Orx::HookInvoker& hooks, FlagValues& values, int*) {
       return hooks.HttpBlock(values["reason"], values["mac"], values["url"]);
     }},
    {"iot_protection",
     {"reason", "mac", "detail"},
     false,
     [](Orx::HookInvoker& hooks, FlagValues& values, int*) {
       return hooks.IotProtection(values["reason"], values["mac"], values["detail"]);
     }},
    {"settings_update",
     {"reason"},
     false,
     [](Orx::HookInvoker& hooks, FlagValues& values, int*) {
       return hooks.SettingsUpdate(values["reason"]);
     }},
};

}  // namespace

bool HookEvent::Takes(const std::string& flag) const {
  return std::any_of(flags.begin(), flags.end(),
                     [&](const char* each) { return each != nullptr && flag == each; });
}

const HookEvent* FindHookEvent(const std::string& name) {
  const auto* const found = std::find_if(std::begin(kEvents), std::end(kEvents),
                                         [&](const HookEvent& each) { return name == each.name; });
  return found == std::end(kEvents) ? nullptr : found;
}

}  // namespace tavlo::ctl
