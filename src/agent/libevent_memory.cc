#include "agent/libevent_memory.h"

#include <cstdlib>

#include <event2/event.h>

#include "agent/libevent_failure.h"
#include "util/log.h"

namespace tavlo {

namespace {

constexpr const char* kFunction = "libevent";

void* OrEnd(void* block, size_t size) {
  if (block == nullptr) {
    Orx::Log::Message2(Orx::Log::kError, kFunction, "Out of memory: %zu bytes were refused", size);
    EndBecauseOfLibevent();
  }
  return block;
}

// libevent never asks for nothing.

void* Allocate(size_t size) {
  return OrEnd(std::malloc(size), size);
}

void* Reallocate(void* block, size_t size) {
  return OrEnd(std::realloc(block, size), size);
}

}  // namespace

void EndWhenLibeventGetsNoMemory() {
  event_set_mem_functions(Allocate, Reallocate, std::free);
}

}  // namespace tavlo
