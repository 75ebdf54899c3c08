// g++ and clang++ define _GNU_SOURCE, which selects GNU's strerror_r. The XSI form is wanted, which
// reports failure. Without _GNU_SOURCE uClibc-ng has to be told that C11 is wanted, which the C++
// library builds on.
#undef _GNU_SOURCE
// NOLINTBEGIN(*-reserved-identifier,cert-dcl*): the C library's switches
#define _POSIX_C_SOURCE 200809L
#define _ISOC11_SOURCE
// NOLINTEND(*-reserved-identifier,cert-dcl*)

#include "util/error_text.h"

#include <string.h>

namespace stdext {

std::string strerror(int errnum) {
  char text[1024] = {};
  if (::strerror_r(errnum, text, sizeof text) != 0) {
    return "strerror_r failed for " + std::to_string(errnum);
  }
  return text;
}

std::string error_number_and_text(int errnum) {
  return std::to_string(errnum) + " " + strerror(errnum);
}

}  // namespace stdext
