#include "ctl/hook_events.h"

#include <algorithm>

namespace tavlo::ctl {

constexpr std::array<HookEvent, 7> kHookEvents = {{
    {"agent",
     {"method", "uri", "data"},
     true,
     [](Orx::HookInvoker& hooks, FlagValues& values, int* exitCode) {
       return hooks.Agent(values["method"], values["uri"], values["data"], exitCode);
     }},
    {"settings_update",
     {"reason"},
     false,
     [](Orx::HookInvoker& hooks, FlagValues& values, int*) {
       return hooks.SettingsUpdate(values["reason"]);
     }},
    {"block_device",
     {"action", "mac"},
     false,
     [](Orx::HookInvoker& hooks, FlagValues& values, int*) {
       return hooks.BlockDevice(values["action"], values["mac"]);
     }},
    {"http_block",
     {"url", "mac", "reason"},
     false,
     [](Orx::HookInvoker& hooks, FlagValues& values, int*) {
       return hooks.HttpBlock(values["reason"], values["mac"], values["url"]);
     }},
    {"dns_block",
     {"hostname", "mac", "reason"},
     false,
     [](Orx::HookInvoker& hooks, FlagValues& values, int*) {
       return hooks.DnsBlock(values["reason"], values["mac"], values["hostname"]);
     }},
    {"device_detected",
     {"mac"},
     false,
     [](Orx::HookInvoker& hooks, FlagValues& values, int*) {
       return hooks.DeviceDetected(values["mac"]);
     }},
    {"iot_protection",
     {"reason", "mac", "detail"},
     false,
     [](Orx::HookInvoker& hooks, FlagValues& values, int*) {
       return hooks.IotProtection(values["reason"], values["mac"], values["detail"]);
     }},
}};

const HookEvent* FindHookEvent(const std::string& name) {
  const auto* const found = std::find_if(kHookEvents.begin(), kHookEvents.end(),
                                         [&](const HookEvent& each) { return name == each.name; });
  return found == kHookEvents.end() ? nullptr : found;
}

}  // namespace tavlo::ctl
