#pragma once

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include <event2/thread.h>
#include <gmock/gmock.h>

#include "agent/agent_host.h"
#include "agent/libevent_log.h"
#include "support/log_capture.h"
#include "support/socket.h"
#include "support/temporary_directory.h"

namespace test {

/// Hosts on a free port, with their files in a directory of their own.
class HostFixture : public testing::Test {
 protected:
  HostFixture() {
    evthread_use_pthreads();
    tavlo::RouteLibeventLog();
  }

  std::unique_ptr<tavlo::AgentHost> MakeHost(bool secure) {
    return std::make_unique<tavlo::AgentHost>(invoker_, secure, agentDataPath_, directory_.Path(),
                                              directory_ / "devices.json", port_, dstAddr_,
                                              dstPort_, agentPrefix_, heartbeat_);
  }

  // The message of the exception that making a host throws; empty when it throws none.
  std::string FailureToMake(bool secure) {
    try {
      MakeHost(secure);
    } catch (const std::runtime_error& error) {
      return error.what();
    }
    return {};
  }

  // One host on a thread of its own, however often this is called. Neither can be stopped, so both
  // stay until the process ends.
  tavlo::AgentHost& RunHost(bool secure) {
    static tavlo::AgentHost* const host = [&] {
      tavlo::AgentHost* const made = MakeHost(secure).release();
      std::thread([made] { made->Run(); }).detach();
      return made;
    }();
    return *host;
  }

  // Posts `body` to an endpoint that the plain listener accepts.
  std::string Patch(const std::string& body) const {
    return Exchange("127.0.0.1", port_,
                    "PATCH /api/1/router-ref HTTP/1.1\r\nContent-Length: " +
                        std::to_string(body.size()) + "\r\n\r\n" + body);
  }

  std::string Get(const std::string& uri) const {
    return Exchange("127.0.0.1", port_, "GET " + uri + " HTTP/1.1\r\nHost: x\r\n\r\n");
  }

  // The connections made before this have been accepted, with all that libevent allocates for them.
  // An answer that ends its connection, such as this one, makes it allocate nothing more.
  void WaitForAccept() const {
    EXPECT_THAT(Get("/elsewhere"), testing::StartsWith("HTTP/1.1 404 "));
  }

  bool LogHas(const std::string& line) const {
    return testing::Value(log_.Lines(), testing::Contains(line));
  }

  LogCapture log_;
  TemporaryDirectory directory_;
  const uint16_t port_ = FreePort();
  std::string dstAddr_ = "127.0.0.1";
  const uint16_t dstPort_ = FreePort();
  std::function<void()> heartbeat_ = [] {};
  Orx::HookInvoker* invoker_ = nullptr;
  std::string agentDataPath_;
  std::string agentPrefix_;
};

}  // namespace test
