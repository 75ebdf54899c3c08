#pragma once

#include <array>
#include <map>
#include <string>
#include <string_view>

#include "hooks/hook_invoker.h"

namespace tavlo::ctl {

/// The values of an event's flags; one that was not given is empty.
using FlagValues = std::map<std::string, std::string>;

/// One event that scripts can be run for.
struct HookEvent {
  const char* name;
  std::array<std::string_view, 3> flags;  ///< without their dashes; empty behind the last
  bool isRequest;  ///< whether it is the daemon's own, and scripts may end the request

  /// Runs the scripts, as `HookInvoker` does. `exitCode` is left alone but for a request's.
  Orx::Status (*raise)(Orx::HookInvoker& hooks, FlagValues& values, int* exitCode);
};

/// All there are, in the order in which `tavloctl check` looks at their scripts.
extern const std::array<HookEvent, 7> kHookEvents;

/// The event of that name, which lives as long as the program; null when there is none.
const HookEvent* FindHookEvent(const std::string& name);

}  // namespace tavlo::ctl
