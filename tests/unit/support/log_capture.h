#pragma once

#include <string>
#include <vector>

#include "support/temporary_directory.h"

namespace test {

/// Opens the process's log into a file of its own, at debug level and with no other sink. One per
/// process, before anything is logged.
class LogCapture {
 public:
  LogCapture();

  /// The lines so far, each from its level on: "ERROR: bool Init: Failed to ignore SIGPIPE".
  std::vector<std::string> Lines() const;

  /// The same lines, without those of "Enter" and "Leave".
  std::vector<std::string> Messages() const;

 private:
  TemporaryDirectory directory_;
};

}  // namespace test
