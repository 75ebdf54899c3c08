#pragma once

#include <chrono>

#include <unistd.h>

namespace test {

/// Asks again and again until `condition` holds; false when it does not within 20 seconds.
template <typename Condition>
bool WaitUntil(const Condition& condition) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) {
      return false;
    }
    // Not nanosleep, which may be one of the functions that a test makes fail.
    ::usleep(5000);
  }
  return true;
}

}  // namespace test
