#pragma once

#include <cstring>
#include <string>

namespace test {

/// The C library's own text for an error number; musl has other ones than glibc.
inline std::string ErrorText(int errnum) {
  return std::strerror(errnum);
}

}  // namespace test
