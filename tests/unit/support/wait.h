#pragma once

#include <chrono>

#include <time.h>

namespace test {

/// Neither nanosleep, which may be one of the functions that a test makes fail, nor usleep, which
/// is no longer POSIX's.
inline void Pause(std::chrono::milliseconds time) {
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(time);
  const timespec length{static_cast<time_t>(seconds.count()),
                        static_cast<long>(std::chrono::nanoseconds(time - seconds).count())};
  ::clock_nanosleep(CLOCK_MONOTONIC, 0, &length, nullptr);
}

/// Asks again and again until `condition` holds; false when it does not within 20 seconds.
template <typename Condition>
bool WaitUntil(const Condition& condition) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) {
      return false;
    }
    Pause(std::chrono::milliseconds(5));
  }
  return true;
}

}  // namespace test
