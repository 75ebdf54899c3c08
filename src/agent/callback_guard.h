#pragma once

#include <exception>

#include "util/log.h"

namespace tavlo {

/// Runs the C++ side of a callback and keeps every exception out of libevent's C frames. Returns
/// false when there was one; the log then names its cause under `function`.
template <typename Action>
bool RunGuarded(const char* function, const Action& action) noexcept {
  try {
    action();
    return true;
  } catch (const std::exception& error) {
    Orx::Log::Message2(Orx::Log::kError, function, "Unexpected failure: %s", error.what());
  } catch (...) {
    Orx::Log::Message2(Orx::Log::kError, function, "Unexpected failure");
  }
  return false;
}

}  // namespace tavlo
