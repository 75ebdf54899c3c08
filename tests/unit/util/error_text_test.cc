#include "util/error_text.h"

#include <cerrno>

#include <gtest/gtest.h>

namespace {

TEST(ErrorText, GivesTheSystemsText) {
  EXPECT_EQ(stdext::strerror(ENOENT), "No such file or directory");
}

TEST(ErrorText, AnUnknownNumberIsNamedWithItsSign) {
#if defined(__GLIBC__)  // uClibc-ng says so of itself too
  EXPECT_EQ(stdext::strerror(99999), "strerror_r failed for 99999");
  EXPECT_EQ(stdext::strerror(-5), "strerror_r failed for -5");
#else
  // musl's strerror_r has a text for each number.
  EXPECT_EQ(stdext::strerror(99999), "No error information");
  EXPECT_EQ(stdext::strerror(-5), "No error information");
#endif
}

TEST(ErrorText, NumberAndTextAreJoinedByOneBlank) {
  EXPECT_EQ(stdext::error_number_and_text(EACCES), "13 Permission denied");
}

}  // namespace
