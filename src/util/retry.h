#pragma once

#include <cerrno>

namespace stdext {

/// Repeats a system call for as long as a signal interrupts it; returns its last result.
template <typename Call>
auto retry_on_interrupt(Call call) -> decltype(call()) {
  decltype(call()) result;
  do {
    result = call();
  } while (result == -1 && errno == EINTR);
  return result;
}

}  // namespace stdext
