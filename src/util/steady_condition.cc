#include "util/steady_condition.h"

#include <cerrno>
#include <system_error>

#include <time.h>

namespace stdext {

steady_condition::steady_condition() : condition_() {
  pthread_condattr_t attributes;
  ::pthread_condattr_init(&attributes);
  int error = ::pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
  if (error == 0) {
    error = ::pthread_cond_init(&condition_, &attributes);
  }
  ::pthread_condattr_destroy(&attributes);
  if (error != 0) {
    throw std::system_error(error, std::generic_category());
  }
}

steady_condition::~steady_condition() {
  ::pthread_cond_destroy(&condition_);
}

void steady_condition::notify_all() {
  ::pthread_cond_broadcast(&condition_);
}

bool steady_condition::wait_once(std::unique_lock<std::mutex>& lock,
                                 std::chrono::steady_clock::time_point deadline) {
  const std::chrono::nanoseconds time = deadline.time_since_epoch();
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(time);
  const timespec end = {static_cast<time_t>(seconds.count()),
                        static_cast<long>((time - seconds).count())};
  return ::pthread_cond_timedwait(&condition_, lock.mutex()->native_handle(), &end) != ETIMEDOUT;
}

}  // namespace stdext
