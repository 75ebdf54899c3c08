// The agent hook's say in a request, with a stand-in for the scripts.

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <functional>
#include <optional>
#include <system_error>

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "agent/host_fixture.h"
#include "hooks/hook_invoker.h"
#include "support/error_text.h"
#include "support/faults.h"

namespace {

using test::Fault;
using testing::Contains;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

struct ScriptedInvoker : Orx::HookInvoker {
  ScriptedInvoker() : Orx::HookInvoker("", "") {}

  Orx::Status Agent(const std::string& method, const std::string& uri, const std::string& data,
                    int* exitCode) override {
    calls += method + " " + uri + " " + data + "\n";
    body = test::ReadFile(data);
    struct stat info = {};
    mode = ::stat(data.c_str(), &info) == 0 ? info.st_mode & 07777U : 0;
    return script(exitCode);
  }

  std::function<Orx::Status(int*)> script = [](int*) { return Orx::Status::Ok(); };
  std::string calls;
  std::string body;
  mode_t mode = 0;
};

class AgentHook : public test::HostFixture {
 protected:
  AgentHook() {
    invoker_ = &scripts_;
    agentDataPath_ = directory_ / "body";
  }

  bool BodyFileExists() const { return ::access(agentDataPath_.c_str(), F_OK) == 0; }

  // Forwarding is what fails here: there is no destination.
  void ExpectForwarded(const std::string& answer) {
    EXPECT_THAT(answer, StartsWith("HTTP/1.1 500 Destination request failed\r\n"));
  }
  void ExpectInternalError(const std::string& answer) {
    EXPECT_THAT(answer, StartsWith("HTTP/1.1 500 Internal error\r\n"));
    EXPECT_THAT(log_.Lines(), Not(Contains(HasSubstr("Destination request failed"))));
  }

  ScriptedInvoker& scripts_ = *new ScriptedInvoker();  // outlives the host, which cannot be stopped
};

TEST_F(AgentHook, IsNotAskedWithoutADataPath) {
  agentDataPath_.clear();
  RunHost(false);
  ExpectForwarded(Get("/api/version"));
  EXPECT_EQ(scripts_.calls, "");
}

TEST_F(AgentHook, SeesARequestWithoutABodyAndNoFileIsTouched) {
  directory_.Write("body", "somebody else's");
  RunHost(false);
  ExpectForwarded(Get("/api/version"));
  EXPECT_EQ(scripts_.calls, "GET /api/version \n");
  EXPECT_EQ(test::ReadFile(agentDataPath_), "somebody else's");
  EXPECT_THAT(log_.Lines(), Contains("DEBUG: bool tavlo::AgentHost::CallHook: Calling agent hook"));
}

TEST_F(AgentHook, SeesTheUriThatTheClientUsedWithoutTheDestinationsPrefix) {
  agentPrefix_ = "/sdk/v1";
  RunHost(false);
  ExpectForwarded(Get("/api/version"));
  EXPECT_EQ(scripts_.calls, "GET /api/version \n");
}

TEST_F(AgentHook, SeesABodyInTheFileWhichIsGoneAfterwards) {
  RunHost(false);
  const std::string body("binary \0 body", 13);
  ExpectForwarded(Patch(body));
  EXPECT_EQ(scripts_.calls, "PATCH /api/1/router-ref " + agentDataPath_ + "\n");
  EXPECT_EQ(scripts_.body, body);
  EXPECT_FALSE(BodyFileExists());
}

TEST_F(AgentHook, TheBodyFileMayBeReadByAllAndWrittenByTheGroupAsFarAsTheUmaskLets) {
  RunHost(false);
  ::umask(0);
  ExpectForwarded(Patch("x"));
  EXPECT_EQ(scripts_.mode, 0664U);
  ::umask(0027);
  ExpectForwarded(Patch("x"));
  EXPECT_EQ(scripts_.mode, 0640U);
}

// Else a script that the other listener starts just then would inherit it.
TEST_F(AgentHook, TheBodyFileIsCloseOnExecFromTheStart) {
  std::string flags;
  const test::Before cut("ftruncate", [&] {
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
      std::error_code error;
      if (std::filesystem::read_symlink(entry, error) == agentDataPath_) {
        const std::string number = entry.path().filename();
        flags = test::ReadFile("/proc/self/fdinfo/" + number);
      }
    }
  });
  RunHost(false);
  ExpectForwarded(Patch("x"));
  // Octal; O_CLOEXEC is 02000000.
  EXPECT_THAT(flags, testing::ContainsRegex("flags:\t[0-7]*[2367][0-7]{6}\n"));
}

TEST_F(AgentHook, ALongerFileThatWasLeftIsCut) {
  directory_.Write("body", "a much longer content than the new one");
  RunHost(false);
  ExpectForwarded(Patch("short"));
  EXPECT_EQ(scripts_.body, "short");
}

TEST_F(AgentHook, MayEndARequestWithAnEmpty200) {
  scripts_.script = [](int* exitCode) {
    *exitCode = 1;
    return Orx::Status::Ok();
  };
  RunHost(false);
  const std::string answer = Patch("x");
  EXPECT_THAT(answer, StartsWith("HTTP/1.1 200 OK\r\n"));
  EXPECT_THAT(answer, HasSubstr("\r\nContent-Length: 0\r\n"));
  EXPECT_THAT(log_.Lines(),
              Contains("DEBUG: bool tavlo::AgentHost::CallHook: Call terminated by hook"));
  EXPECT_FALSE(BodyFileExists());
}

TEST_F(AgentHook, ThatFailsIsAnInternalErrorWithItsCauseInTheLog) {
  scripts_.script = [](int*) { return Orx::Status::Failure("no such luck"); };
  RunHost(false);
  ExpectInternalError(Patch("x"));
  EXPECT_THAT(log_.Lines(), Contains("ERROR: bool tavlo::AgentHost::CallHook: Failed to invoke "
                                     "agent hook: no such luck"));
  EXPECT_FALSE(BodyFileExists());
}

TEST_F(AgentHook, ThatThrowsIsAnInternalErrorAndTheHostGoesOn) {
  scripts_.script = [](int*) -> Orx::Status {
    throw std::system_error(EAGAIN, std::generic_category(), "no thread");
  };
  RunHost(false);
  ExpectInternalError(Patch("x"));
  EXPECT_THAT(log_.Lines(), Contains(HasSubstr("Unexpected failure: no thread: Resource "
                                               "temporarily unavailable")));
  EXPECT_FALSE(BodyFileExists());
  scripts_.script = [](int*) { return Orx::Status::Ok(); };
  ExpectForwarded(Patch("x"));
}

TEST_F(AgentHook, ABodyFileThatCannotBeOpenedIsAnInternalError) {
  agentDataPath_ = directory_ / "missing/body";
  RunHost(false);
  ExpectInternalError(Patch("x"));
  EXPECT_THAT(log_.Lines(),
              Contains("ERROR: bool tavlo::AgentHost::CallHook: Failed to write file " +
                       agentDataPath_ + ": 2 No such file or directory"));
  EXPECT_EQ(scripts_.calls, "");
}

TEST_F(AgentHook, ABodyFileOnAFullDeviceIsAnInternalError) {
  std::optional<Fault> full;
  const test::Before opening("open", [&] { full.emplace("write", ENOSPC, 0, 1); });
  RunHost(false);
  ExpectInternalError(Patch("x"));
  EXPECT_THAT(log_.Lines(),
              Contains("ERROR: bool tavlo::AgentHost::CallHook: Failed to write file " +
                       agentDataPath_ + ": 28 No space left on device"));
}

// Where others may write to its directory, and the daemon is root.
TEST_F(AgentHook, ABodyFileThatIsALinkIsAnInternalErrorAndTheOtherFileStays) {
  const std::string other = directory_.Write("other", "root's");
  ASSERT_EQ(::symlink(other.c_str(), agentDataPath_.c_str()), 0);
  RunHost(false);
  ExpectInternalError(Patch("x"));
  EXPECT_THAT(log_.Lines(),
              Contains("ERROR: bool tavlo::AgentHost::CallHook: Failed to write file " +
                       agentDataPath_ + ": 40 " + test::ErrorText(ELOOP)));
  EXPECT_EQ(test::ReadFile(other), "root's");
  EXPECT_EQ(scripts_.calls, "");
}

TEST_F(AgentHook, ABodyFileThatIsAnotherFileTooIsAnInternalErrorAndThatStays) {
  const std::string other = directory_.Write("other", "root's");
  ASSERT_EQ(::link(other.c_str(), agentDataPath_.c_str()), 0);
  RunHost(false);
  ExpectInternalError(Patch("x"));
  EXPECT_THAT(log_.Lines(),
              Contains("ERROR: bool tavlo::AgentHost::CallHook: Failed to write file " +
                       agentDataPath_ + ": 31 Too many links"));
  EXPECT_EQ(test::ReadFile(other), "root's");
}

TEST_F(AgentHook, ABodyThatIsWrittenInPartIsAnInternalErrorAndTheFileStays) {
  // The last byte that a file may have is its 3000th; the write is cut there.
  ::signal(SIGXFSZ, SIG_IGN);
  const rlimit limit = {3000, 3000};
  RunHost(false);
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
  EXPECT_THAT(Patch(std::string(4000, 'x')), StartsWith("HTTP/1.1 500 Internal error\r\n"));
  EXPECT_THAT(log_.Lines(),
              Contains("ERROR: bool tavlo::AgentHost::CallHook: Failed to write file " +
                       agentDataPath_ + ": 28 No space left on device"));
  EXPECT_EQ(scripts_.calls, "");
  EXPECT_TRUE(BodyFileExists());
}

TEST_F(AgentHook, WhatABodyFileHeldIsNotCutOffByABodyThatIsWrittenInPart) {
  ::signal(SIGXFSZ, SIG_IGN);
  directory_.Write("body", std::string(5000, 'o'));
  const rlimit limit = {3000, 3000};
  RunHost(false);
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
  EXPECT_THAT(Patch(std::string(4000, 'x')), StartsWith("HTTP/1.1 500 Internal error\r\n"));
  EXPECT_EQ(test::ReadFile(agentDataPath_), std::string(3000, 'x') + std::string(2000, 'o'));
}

TEST_F(AgentHook, AFifoInPlaceOfTheBodyFileIsAnInternalErrorAndBlocksNobody) {
  ASSERT_EQ(::mkfifo(agentDataPath_.c_str(), 0600), 0);
  RunHost(false);
  ExpectInternalError(Patch("x"));
  EXPECT_THAT(log_.Lines(),
              Contains("ERROR: bool tavlo::AgentHost::CallHook: Failed to write file " +
                       agentDataPath_ + ": 6 No such device or address"));
}

TEST_F(AgentHook, ABodyFileThatCannotBeCutIsAnInternalError) {
  RunHost(false);
  const Fault fault("ftruncate", EIO);
  ExpectInternalError(Patch("x"));
  EXPECT_THAT(log_.Lines(),
              Contains("ERROR: bool tavlo::AgentHost::CallHook: Failed to write file " +
                       agentDataPath_ + ": 5 " + test::ErrorText(EIO)));
}

TEST_F(AgentHook, IsAskedOnlyAboutRequestsThatWereAccepted) {
  RunHost(false);
  EXPECT_THAT(Get("/elsewhere"), StartsWith("HTTP/1.1 404 "));
  EXPECT_THAT(Get("/api/other"), StartsWith("HTTP/1.1 417 "));
  EXPECT_THAT(Get("/api/mac"), StartsWith("HTTP/1.1 500 "));
  EXPECT_THAT(Patch(std::string(32769, 'x')), StartsWith("HTTP/1.1 400 Request data too long\r\n"));
  EXPECT_EQ(scripts_.calls, "");
}

TEST_F(AgentHook, IsNotAskedAboutAUriThatIsNotForwarded) {
  RunHost(true).SetPairingKey("key");
  EXPECT_THAT(
      test::Exchange("127.0.0.1", port_, "GET /api/x\ty HTTP/1.1\r\nPairingKey: key\r\n\r\n"),
      StartsWith("HTTP/1.1 400 Invalid character in the URI\r\n"));
  EXPECT_EQ(scripts_.calls, "");
}

}  // namespace
