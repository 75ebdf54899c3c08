#include "util/status.h"

#include <gtest/gtest.h>

namespace {

TEST(Status, OkIsASuccessWithoutAMessage) {
  const Orx::Status status = Orx::Status::Ok();
  EXPECT_TRUE(status.IsOk());
  EXPECT_EQ(status.Message(), "");
}

TEST(Status, FailureCarriesItsMessage) {
  const Orx::Status status = Orx::Status::Failure("Failed to recv from socket: 9");
  EXPECT_FALSE(status.IsOk());
  EXPECT_EQ(status.Message(), "Failed to recv from socket: 9");
}

TEST(Status, FailureMayHaveAnEmptyMessage) {
  EXPECT_FALSE(Orx::Status::Failure("").IsOk());
}

}  // namespace
