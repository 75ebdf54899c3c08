#include "hooks/child_environment.h"

#include <cstdlib>
#include <cstring>

#include <unistd.h>

namespace Orx {

namespace {

constexpr const char* kSavedPrefix = "MIREL_ORIGINAL_";

bool BeginsWith(const char* text, const char* start) {
  return std::strncmp(text, start, std::strlen(start)) == 0;
}

}  // namespace

ChildEnvironment::ChildEnvironment() {
  // A process without any variables may have no list either.
  for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
    if (!BeginsWith(*entry, kSavedPrefix) && !BeginsWith(*entry, "LD_PRELOAD=") &&
        !BeginsWith(*entry, "LD_LIBRARY_PATH=")) {
      entries_.push_back(*entry);
    }
  }
  Restore("LD_LIBRARY_PATH");
  Restore("LD_PRELOAD");
  for (std::string& entry : restored_) {
    entries_.push_back(entry.data());
  }
  entries_.push_back(nullptr);
}

// What started the daemon with loader variables of its own kept the system's under other names.
void ChildEnvironment::Restore(const std::string& name) {
  const char* const saved = std::getenv((kSavedPrefix + name).c_str());
  if (saved != nullptr) {
    restored_.push_back(name + "=" + saved);
  }
}

}  // namespace Orx
