#include "agent/openssl_memory.h"

#include <cstdlib>

#include <openssl/crypto.h>

#include "agent/limits.h"

namespace tavlo {

namespace {

void* Allocate(size_t size, const char* /*file*/, int /*line*/) {
  return size > kMaxTlsBlock ? nullptr : std::malloc(size);
}

void* Reallocate(void* block, size_t size, const char* /*file*/, int /*line*/) {
  return size > kMaxTlsBlock ? nullptr : std::realloc(block, size);
}

void Free(void* block, const char* /*file*/, int /*line*/) {
  std::free(block);
}

}  // namespace

void LimitOpensslBlocks() {
  CRYPTO_set_mem_functions(Allocate, Reallocate, Free);
}

}  // namespace tavlo
