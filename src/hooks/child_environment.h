#pragma once

#include <string>
#include <vector>

namespace Orx {

/// The environment of a child, made before the fork: between fork and exec nothing may allocate. It
/// is the daemon's own without LD_PRELOAD and LD_LIBRARY_PATH, which are given the values of
/// MIREL_ORIGINAL_LD_PRELOAD and MIREL_ORIGINAL_LD_LIBRARY_PATH where these are set.
class ChildEnvironment {
 public:
  ChildEnvironment();
  ChildEnvironment(const ChildEnvironment&) = delete;
  ChildEnvironment& operator=(const ChildEnvironment&) = delete;

  /// For `exec`. It lives as long as this object and refers to the daemon's own entries.
  char* const* Get() const { return entries_.data(); }

 private:
  void Restore(const std::string& name);

  std::vector<char*> entries_;
  std::vector<std::string> restored_;
};

}  // namespace Orx
