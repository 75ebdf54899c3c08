#include "agent/openssl_memory.h"

#include <gtest/gtest.h>
#include <openssl/crypto.h>

#include "agent/limits.h"

namespace tavlo {
namespace {

TEST(OpensslMemory, NoBlockIsLargerThanTheLimit) {
  LimitOpensslBlocks();
  void* const block = OPENSSL_malloc(kMaxTlsBlock);
  EXPECT_NE(block, nullptr);
  EXPECT_EQ(OPENSSL_malloc(kMaxTlsBlock + 1), nullptr);
  OPENSSL_free(block);
}

TEST(OpensslMemory, NoBlockGrowsBeyondTheLimit) {
  LimitOpensslBlocks();
  void* block = OPENSSL_malloc(1);
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(OPENSSL_realloc(block, kMaxTlsBlock + 1), nullptr);
  block = OPENSSL_realloc(block, kMaxTlsBlock);
  EXPECT_NE(block, nullptr);
  OPENSSL_free(block);
}

}  // namespace
}  // namespace tavlo
