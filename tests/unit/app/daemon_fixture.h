#pragma once

#include <csignal>
#include <string>

#include <gmock/gmock.h>

#include "app/run_loop.h"
#include "app/start_up.h"
#include "support/child.h"
#include "support/faults.h"
#include "support/log_capture.h"
#include "support/socket.h"
#include "support/temporary_directory.h"
#include "support/wait.h"

namespace test {

/// A configuration with free ports and files in a directory of its own, for tests that run `Init`
/// and `Run` in a child process.
class DaemonFixture : public testing::Test {
 protected:
  DaemonFixture() {
    directory_.Write("router_info", "pairing_key: 12345\n");
    configPath_ = directory_.Write(
        "config.json",
        "{\"agentHttpPort\":" + std::to_string(FreePort()) +
            ",\"agentHttpsPort\":" + std::to_string(FreePort()) + ",\"routerInfoPath\":\"" +
            (directory_ / "router_info") + "\",\"agentDirectory\":\"" + directory_.Path() +
            "\",\"internalHooksDirectory\":\"" + (directory_ / "hooks") + "\",\"rootPrefix\":\"" +
            directory_.Path() + "\",\"lanInterface\":\"lo\"}");
  }

  /// The log has this line, from its level on.
  bool LogHas(const std::string& line) const {
    return testing::Value(log_.Lines(), testing::Contains(line));
  }

  LogCapture log_;
  TemporaryDirectory directory_;
  std::string configPath_;
};

}  // namespace test
