#include "util/retry.h"

#include <cerrno>

#include <gtest/gtest.h>

namespace {

TEST(RetryOnInterrupt, ReturnsTheFirstSuccess) {
  int calls = 0;
  EXPECT_EQ(stdext::retry_on_interrupt([&] { return ++calls; }), 1);
  EXPECT_EQ(calls, 1);
}

TEST(RetryOnInterrupt, RepeatsAnInterruptedCall) {
  int calls = 0;
  const int result = stdext::retry_on_interrupt([&] {
    errno = EINTR;
    return ++calls < 4 ? -1 : 7;
  });
  EXPECT_EQ(result, 7);
  EXPECT_EQ(calls, 4);
}

TEST(RetryOnInterrupt, ReturnsAnyOtherFailureWithItsNumber) {
  int calls = 0;
  const int result = stdext::retry_on_interrupt([&] {
    ++calls;
    errno = EAGAIN;
    return -1;
  });
  EXPECT_EQ(result, -1);
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_EQ(calls, 1);
}

TEST(RetryOnInterrupt, TakesAnOldErrorNumberForNoInterruption) {
  int calls = 0;
  errno = EINTR;
  EXPECT_EQ(stdext::retry_on_interrupt([&] { return calls++; }), 0);
  EXPECT_EQ(calls, 1);
}

}  // namespace
