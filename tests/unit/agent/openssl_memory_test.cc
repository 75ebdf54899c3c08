#include "agent/openssl_memory.h"

#include <gtest/gtest.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

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

TEST(OpensslMemory, NoTextsOfErrorsAreKept) {
  LeaveOutOpensslErrorTexts();
  SSL_CTX_free(SSL_CTX_new(TLS_server_method()));
  // Each begins its own table: that of the libraries, of OpenSSL's own errors, of TLS's.
  EXPECT_EQ(ERR_lib_error_string(ERR_PACK(ERR_LIB_SSL, 0, 0)), nullptr);
  EXPECT_EQ(ERR_reason_error_string(ERR_PACK(ERR_LIB_X509, 0, X509_R_KEY_VALUES_MISMATCH)),
            nullptr);
  EXPECT_EQ(ERR_reason_error_string(ERR_PACK(ERR_LIB_SSL, 0, SSL_R_NO_SHARED_CIPHER)), nullptr);
}

}  // namespace
}  // namespace tavlo
