#pragma once

#include <ostream>
#include <string>
#include <vector>

namespace tavlo::ctl {

/// Something that would not work.
struct Finding {
  std::string where;  ///< a path, with line and column where they are known; or an endpoint
  std::string what;   ///< what is wrong there, and what comes of it
  std::string cure;
};

/// What a check has found, in the order in which it was found.
class Findings {
 public:
  void Add(const std::string& where, const std::string& what, const std::string& cure) {
    findings_.push_back({where, what, cure});
  }

  /// Something that could not be looked at, which must not pass for good.
  void AddUnseen(const std::string& where, const std::string& why) {
    unseen_.push_back({where, why, std::string()});
  }

  /// `kFindings` where there is one, else `kCouldNotLook` where something could not be looked at.
  int ExitCode() const;

  /// For people. Control characters, which a name or a value may hold, become "?".
  void PrintText(std::ostream& out) const;

  /// For programs: {"findings": [{"where", "what", "cure"}], "unseen": [{"where", "what"}]}.
  void PrintJson(std::ostream& out) const;

 private:
  std::vector<Finding> findings_;
  std::vector<Finding> unseen_;  // these have no cure
};

}  // namespace tavlo::ctl
