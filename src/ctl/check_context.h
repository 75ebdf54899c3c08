#pragma once

#include <string>
#include <vector>

#include "ctl/daemon_user.h"
#include "ctl/findings.h"
#include "settings/app_settings.h"

namespace tavlo::ctl {

/// What each concern of a check goes by; it owns none of it. All functions that get it add what
/// they find, in a fixed order.
struct CheckContext {
  const AppSettings& settings;
  const DaemonUser& user;
  Findings* findings;
};

/// A file or directory that the daemon cannot do without.
struct Need {
  std::string path;
  int mode;                 ///< what its user must be able to do, as for access(2)
  std::string consequence;  ///< what happens otherwise
  std::string cure;         ///< for when it is missing
};

/// Returns whether it is there; adds a finding when it is not, and when the daemon's user may not
/// do what it must.
bool CheckNeed(const CheckContext& context, const Need& need);

/// Adds a finding when others than root and the daemon's user may write to the directory or file,
/// which is there.
void CheckWriters(const CheckContext& context, const std::string& path,
                  const std::string& consequence);

/// Where the bytes of a file's text stand. It keeps no reference to the text.
class TextPlaces {
 public:
  TextPlaces(std::string path, const std::string& text);

  /// "PATH:LINE:COLUMN" of the byte at `offset`. Lines and columns count from 1, columns in bytes.
  std::string Of(size_t offset) const;

 private:
  std::string path_;
  size_t size_;
  std::vector<size_t> lineStarts_ = {0};
};

}  // namespace tavlo::ctl
