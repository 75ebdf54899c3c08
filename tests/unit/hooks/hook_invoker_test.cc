#include "hooks/hook_invoker.h"

#include <csignal>
#include <cstring>
#include <filesystem>
#include <functional>
#include <ostream>
#include <string>
#include <type_traits>

#include <gmock/gmock.h>
#include <unistd.h>

#include "support/child.h"
#include "support/log_capture.h"
#include "support/temporary_directory.h"
#include "util/privilege.h"

namespace {

using Orx::HookInvoker;
using Orx::Status;
using testing::Contains;
using testing::HasSubstr;

namespace fs = std::filesystem;

class HookInvokerTest : public testing::Test {
 protected:
  HookInvokerTest() { ::signal(SIGPIPE, SIG_IGN); }

  void MakeInternal(const std::string& hook) const {
    fs::create_directories(directory_ / ("internal/" + hook));
  }
  void MakeExternal(const std::string& hook) const {
    fs::create_directories(directory_ / ("external/" + hook));
  }
  void Internal(const std::string& name, const std::string& script) const {
    directory_.WriteScript("internal/" + name, "#!/bin/sh\n" + script + "\n");
  }
  void External(const std::string& name, const std::string& script) const {
    directory_.WriteScript("external/" + name, "#!/bin/sh\n" + script + "\n");
  }

  // A script that writes each of its arguments, framed, to the file "seen".
  std::string Recorder() const { return "printf '<%s>' \"$@\" >>" + (directory_ / "seen"); }
  std::string Seen() const { return test::ReadFile(directory_ / "seen"); }

  test::LogCapture log_;
  test::TemporaryDirectory directory_;
  HookInvoker invoker_{directory_ / "internal", directory_ / "external"};
};

// Pointers to methods as the Itanium C++ ABI has them: for a virtual one the first half is its
// place in the table, in bytes, and the lowest bit of one of the halves is set. On ARM that is the
// second one, since an address of Thumb code has the bit too.
struct MethodPointer {
  template <typename Method>
  explicit MethodPointer(Method method) {
    static_assert(sizeof method == sizeof halves);
    std::memcpy(halves, &method, sizeof halves);
  }

  bool IsVirtual() const { return (halves[kMarkedHalf] & 1) != 0; }
  size_t Slot() const { return halves[0] / sizeof(void*); }

#if defined(__arm__) || defined(__aarch64__)
  static constexpr size_t kMarkedHalf = 1;
#else
  static constexpr size_t kMarkedHalf = 0;
#endif
  size_t halves[2];
};

// A program of the firmware may be linked with a library that is newer than its header.
TEST(HookInvokerInterface, KeepsItsMethodsAndMembersInTheirPlaces) {
  static_assert(std::has_virtual_destructor_v<HookInvoker>);  // which has the first two places
  EXPECT_EQ(MethodPointer(&HookInvoker::SettingsUpdate).Slot(), 2U);
  EXPECT_EQ(MethodPointer(&HookInvoker::BlockDevice).Slot(), 3U);
  EXPECT_EQ(MethodPointer(&HookInvoker::HttpBlock).Slot(), 4U);
  EXPECT_EQ(MethodPointer(&HookInvoker::DnsBlock).Slot(), 5U);
  EXPECT_EQ(MethodPointer(&HookInvoker::DeviceDetected).Slot(), 6U);
  EXPECT_EQ(MethodPointer(&HookInvoker::IotProtection).Slot(), 7U);
  EXPECT_EQ(MethodPointer(&HookInvoker::Agent).Slot(), 8U);
  EXPECT_TRUE(MethodPointer(&HookInvoker::Agent).IsVirtual());
  EXPECT_FALSE(MethodPointer(&HookInvoker::Invoke).IsVirtual());
  EXPECT_EQ(sizeof(HookInvoker), sizeof(void*) + 2 * sizeof(std::string));
}

struct Event {
  const char* name;
  const char* hook;
  std::function<Status(HookInvoker&)> call;
  const char* arguments;  // as the recorder writes them; null: the call is refused
  const char* refusal;

  friend std::ostream& operator<<(std::ostream& out, const Event& event) {
    return out << event.name;
  }
};

constexpr const char* kNasty = "-- a 'b' \"c\" $(id)\n\xc3\xa9";

Event Accepted(const char* name, const char* hook, std::function<Status(HookInvoker&)> call,
               const char* arguments) {
  return {name, hook, std::move(call), arguments, nullptr};
}

Event Refused(const char* name, const char* hook, std::function<Status(HookInvoker&)> call,
              const char* message) {
  return {name, hook, std::move(call), nullptr, message};
}

class HookEvent : public HookInvokerTest, public testing::WithParamInterface<Event> {};

TEST_P(HookEvent, ChecksItsArgumentsAndHandsThemOver) {
  const Event& event = GetParam();
  // No event is interested in the output, so that there may be any amount of it.
  Internal(std::string(event.hook) + "/10-record",
           Recorder() + "; head -c 1000000 /dev/zero; exit 0");
  const Status status = event.call(invoker_);
  if (event.refusal != nullptr) {
    EXPECT_FALSE(status.IsOk());
    EXPECT_EQ(status.Message(), event.refusal);
    EXPECT_EQ(Seen(), "");
  } else {
    EXPECT_EQ(status.Message(), "");
    EXPECT_TRUE(status.IsOk());
    EXPECT_EQ(Seen(), event.arguments);
  }
}

int ignoredCode = 0;

INSTANTIATE_TEST_SUITE_P(
    Settings, HookEvent,
    testing::Values(Accepted(
                        "User", "settings_update",
                        [](HookInvoker& i) { return i.SettingsUpdate("user_settings"); },
                        "<--reason><user_settings>"),
                    Accepted(
                        "DeviceList", "settings_update",
                        [](HookInvoker& i) { return i.SettingsUpdate("device_list"); },
                        "<--reason><device_list>"),
                    Accepted(
                        "ProfileList", "settings_update",
                        [](HookInvoker& i) { return i.SettingsUpdate("profile_list"); },
                        "<--reason><profile_list>"),
                    Accepted(
                        "RouterInfo", "settings_update",
                        [](HookInvoker& i) { return i.SettingsUpdate("router_info"); },
                        "<--reason><router_info>"),
                    Refused(
                        "Other", "settings_update",
                        [](HookInvoker& i) { return i.SettingsUpdate("Router_info"); },
                        "settings_update.reason is invalid: 'Router_info'"),
                    Refused(
                        "Empty", "settings_update",
                        [](HookInvoker& i) { return i.SettingsUpdate(""); },
                        "settings_update.reason is invalid: ''")),
    [](const auto& suite) { return std::string(suite.param.name); });

INSTANTIATE_TEST_SUITE_P(
    Block, HookEvent,
    testing::Values(
        Accepted(
            "Block", "block_device", [](HookInvoker& i) { return i.BlockDevice("block", kNasty); },
            "<--action><block><--mac><-- a 'b' \"c\" $(id)\n\xc3\xa9>"),
        Accepted(
            "Unblock", "block_device", [](HookInvoker& i) { return i.BlockDevice("unblock", "m"); },
            "<--action><unblock><--mac><m>"),
        Accepted(
            "Reset", "block_device", [](HookInvoker& i) { return i.BlockDevice("reset", ""); },
            "<--action><reset>"),
        Accepted(
            "ResetIgnoresTheMac", "block_device",
            [](HookInvoker& i) { return i.BlockDevice("reset", "m"); }, "<--action><reset>"),
        Refused(
            "OtherAction", "block_device", [](HookInvoker& i) { return i.BlockDevice("ban", ""); },
            "device_block.action is invalid: 'ban'"),
        Refused(
            "BlockNobody", "block_device",
            [](HookInvoker& i) { return i.BlockDevice("block", ""); }, "device_block.mac is empty"),
        Refused(
            "UnblockNobody", "block_device",
            [](HookInvoker& i) { return i.BlockDevice("unblock", ""); },
            "device_block.mac is empty")),
    [](const auto& suite) { return std::string(suite.param.name); });

INSTANTIATE_TEST_SUITE_P(
    Http, HookEvent,
    testing::Values(
        Accepted(
            "Browsing", "http_block",
            [](HookInvoker& i) { return i.HttpBlock("browsing_protection", "m", kNasty); },
            "<--url><-- a 'b' \"c\" $(id)\n\xc3\xa9><--mac><m><--reason>"
            "<browsing_protection>"),
        Accepted(
            "Antibot", "http_block",
            [](HookInvoker& i) { return i.HttpBlock("antibot", "m", "u"); },
            "<--url><u><--mac><m><--reason><antibot>"),
        Accepted(
            "Tracking", "http_block",
            [](HookInvoker& i) { return i.HttpBlock("tracking_protection", "m", "u"); },
            "<--url><u><--mac><m><--reason><tracking_protection>"),
        Accepted(
            "Content", "http_block",
            [](HookInvoker& i) { return i.HttpBlock("content_filtering", "m", "u"); },
            "<--url><u><--mac><m><--reason><content_filtering>"),
        Accepted(
            "Blacklist", "http_block",
            [](HookInvoker& i) { return i.HttpBlock("blacklist", "m", "u"); },
            "<--url><u><--mac><m><--reason><blacklist>"),
        Refused(
            "UrlIsCheckedFirst", "http_block",
            [](HookInvoker& i) { return i.HttpBlock("other", "", ""); }, "http_block.url is empty"),
        Refused(
            "ThenTheReason", "http_block",
            [](HookInvoker& i) { return i.HttpBlock("other", "", "u"); },
            "http_block.reason is invalid: 'other'"),
        Refused(
            "ThenTheMac", "http_block",
            [](HookInvoker& i) { return i.HttpBlock("antibot", "", "u"); },
            "http_block.mac is empty")),
    [](const auto& suite) { return std::string(suite.param.name); });

INSTANTIATE_TEST_SUITE_P(
    Dns, HookEvent,
    testing::Values(
        Accepted(
            "Browsing", "dns_block",
            [](HookInvoker& i) { return i.DnsBlock("browsing_protection", "m", kNasty); },
            "<--hostname><-- a 'b' \"c\" $(id)\n\xc3\xa9><--mac><m><--reason>"
            "<browsing_protection>"),
        Accepted(
            "Antibot", "dns_block", [](HookInvoker& i) { return i.DnsBlock("antibot", "m", "h"); },
            "<--hostname><h><--mac><m><--reason><antibot>"),
        Accepted(
            "Content", "dns_block",
            [](HookInvoker& i) { return i.DnsBlock("content_filtering", "m", "h"); },
            "<--hostname><h><--mac><m><--reason><content_filtering>"),
        Accepted(
            "Blacklist", "dns_block",
            [](HookInvoker& i) { return i.DnsBlock("blacklist", "m", "h"); },
            "<--hostname><h><--mac><m><--reason><blacklist>"),
        Refused(
            "Tracking", "dns_block",
            [](HookInvoker& i) { return i.DnsBlock("tracking_protection", "m", "h"); },
            "dns_block.reason is invalid: 'tracking_protection'"),
        Refused(
            "HostnameIsCheckedFirst", "dns_block",
            [](HookInvoker& i) { return i.DnsBlock("other", "", ""); },
            "dns_block.hostname is empty"),
        Refused(
            "ThenTheReason", "dns_block",
            [](HookInvoker& i) { return i.DnsBlock("other", "", "h"); },
            "dns_block.reason is invalid: 'other'"),
        Refused(
            "ThenTheMac", "dns_block",
            [](HookInvoker& i) { return i.DnsBlock("antibot", "", "h"); },
            "dns_block.mac is empty")),
    [](const auto& suite) { return std::string(suite.param.name); });

INSTANTIATE_TEST_SUITE_P(
    Others, HookEvent,
    testing::Values(
        Accepted(
            "Detected", "device_detected", [](HookInvoker& i) { return i.DeviceDetected(kNasty); },
            "<--mac><-- a 'b' \"c\" $(id)\n\xc3\xa9>"),
        Refused(
            "DetectedNobody", "device_detected",
            [](HookInvoker& i) { return i.DeviceDetected(""); }, "device_detected.mac is empty"),
        Accepted(
            "Iot", "iot_protection",
            [](HookInvoker& i) { return i.IotProtection("flow_counter", "m", kNasty); },
            "<--reason><flow_counter><--mac><m><--detail><-- a 'b' \"c\" $(id)\n\xc3\xa9>"),
        Refused(
            "IotReasonIsCheckedFirst", "iot_protection",
            [](HookInvoker& i) { return i.IotProtection("other", "", ""); },
            "iot_protection.reason is invalid: 'other'"),
        Refused(
            "IotWithoutMac", "iot_protection",
            [](HookInvoker& i) { return i.IotProtection("flow_counter", "", "d"); },
            "iot_protection.mac or iot_protection.detail is empty"),
        Refused(
            "IotWithoutDetail", "iot_protection",
            [](HookInvoker& i) { return i.IotProtection("flow_counter", "m", ""); },
            "iot_protection.mac or iot_protection.detail is empty"),
        Accepted(
            "AgentWithoutData", "agent",
            [](HookInvoker& i) { return i.Agent("GET", kNasty, "", &ignoredCode); },
            "<--method><GET><--uri><-- a 'b' \"c\" $(id)\n\xc3\xa9>"),
        Accepted(
            "AgentWithData", "agent",
            [](HookInvoker& i) { return i.Agent("PUT", "/u", "/tmp/d", &ignoredCode); },
            "<--method><PUT><--uri></u><--data></tmp/d>"),
        Refused(
            "AgentWithoutMethod", "agent",
            [](HookInvoker& i) { return i.Agent("", "/u", "", &ignoredCode); },
            "agent.method or agent.uri empty"),
        Refused(
            "AgentWithoutUri", "agent",
            [](HookInvoker& i) { return i.Agent("GET", "", "", &ignoredCode); },
            "agent.method or agent.uri empty")),
    [](const auto& suite) { return std::string(suite.param.name); });

class Invocation : public HookInvokerTest {
 protected:
  Status Invoke() { return invoker_.Invoke("event", {"arg"}, &exitCode_, &output_); }

  int exitCode_ = 77;
  std::string output_ = "from an earlier call";
};

TEST_F(Invocation, OfNoScriptsSucceedsWithCodeZeroAndNoOutput) {
  MakeInternal("event");
  EXPECT_TRUE(Invoke().IsOk());
  EXPECT_EQ(exitCode_, 0);
  EXPECT_EQ(output_, "");
}

TEST_F(Invocation, NeedsTheInternalDirectoryEvenWhenThereIsAnExternalOne) {
  External("event/10", "echo external");
  EXPECT_EQ(Invoke().Message(),
            "failed to list directory '" + (directory_ / "internal/event") + "'");
  EXPECT_EQ(exitCode_, 0);
  EXPECT_EQ(output_, "");
}

TEST_F(Invocation, RunsInternalThenExternalScriptsEachInTheirOrder) {
  for (const char* name : {"9-b", "10-a", ".hidden", "x", "10-a~"}) {
    Internal(std::string("event/") + name, "echo internal ${0##*/} $1");
    External(std::string("event/") + name, "echo external ${0##*/}");
  }
  EXPECT_TRUE(Invoke().IsOk());
  EXPECT_EQ(output_,
            "internal .hidden arg\ninternal 10-a arg\ninternal 10-a~ arg\ninternal 9-b arg\n"
            "internal x arg\n"
            "external .hidden\nexternal 10-a\nexternal 10-a~\nexternal 9-b\nexternal x\n");
}

TEST_F(Invocation, TellsAScriptItsPathAsItWasPutTogether) {
  Internal("event/10", "printf '%s' \"$0\"");
  HookInvoker invoker(directory_ / "internal/", "");
  EXPECT_TRUE(invoker.Invoke("event", {}, nullptr, &output_).IsOk());
  EXPECT_EQ(output_, directory_ / "internal//event/10");
}

TEST_F(Invocation, TellsAnExternalScriptItsPathInTheSameWay) {
  MakeInternal("event");
  External("event/10", "printf '%s' \"$0\"");
  HookInvoker invoker(directory_ / "internal", directory_ / "external/");
  EXPECT_TRUE(invoker.Invoke("event", {}, nullptr, &output_).IsOk());
  EXPECT_EQ(output_, directory_ / "external//event/10");
}

TEST_F(Invocation, LooksForExternalScriptsWhenTheInternalOnesHaveRun) {
  const std::string script = directory_ / "external/event/10";
  Internal("event/10", "mkdir -p " + (directory_ / "external/event") +
                           "; printf '#!/bin/sh\\necho made\\n' >" + script + "; chmod +x " +
                           script);
  EXPECT_TRUE(Invoke().IsOk());
  EXPECT_EQ(output_, "made\n");
  // And for the scripts of a directory that is there already.
  Internal("event/10", "mv " + script + " " + script + "-renamed");
  EXPECT_TRUE(Invoke().IsOk());
  EXPECT_EQ(exitCode_, 0);
  EXPECT_EQ(output_, "made\n");
}

TEST_F(Invocation, GivesAnEmptyInput) {
  Internal("event/10", "cat; echo end");
  EXPECT_TRUE(Invoke().IsOk());
  EXPECT_EQ(output_, "end\n");
}

TEST_F(Invocation, WorksWithoutPlacesForCodeAndOutput) {
  Internal("event/10", "echo text; exit 1");
  EXPECT_TRUE(invoker_.Invoke("event", {}, nullptr, nullptr).IsOk());
  Internal("event/10", "head -c 2000000 /dev/zero");
  EXPECT_TRUE(invoker_.Invoke("event", {}, nullptr, nullptr).IsOk());
}

TEST_F(Invocation, OfTheAgentTellsItsCode) {
  Internal("agent/10", "exit 1");
  EXPECT_TRUE(invoker_.Agent("GET", "/u", "", &exitCode_).IsOk());
  EXPECT_EQ(exitCode_, 1);
  Internal("agent/10", "exit 0");
  EXPECT_TRUE(invoker_.Agent("GET", "/u", "/d", &exitCode_).IsOk());
  EXPECT_EQ(exitCode_, 0);
}

TEST_F(Invocation, AnyOneInADirectoryMakesTheCodeOneAndTheOthersStillRun) {
  Internal("event/10", "exit 0");
  Internal("event/20", "exit 1");
  Internal("event/30", "echo ran; exit 0");
  EXPECT_TRUE(Invoke().IsOk());
  EXPECT_EQ(exitCode_, 1);
  EXPECT_EQ(output_, "ran\n");
}

TEST_F(Invocation, WhatCannotBeExecutedAnswersOne) {
  MakeInternal("event/subdirectory");
  EXPECT_TRUE(Invoke().IsOk());
  EXPECT_EQ(exitCode_, 1);
  fs::remove(directory_ / "internal/event/subdirectory");
  directory_.Write("internal/event/10", "#!/bin/sh\nexit 0\n");
  EXPECT_TRUE(Invoke().IsOk());
  EXPECT_EQ(exitCode_, 1);
}

TEST_F(Invocation, TheExternalDirectoryOverrulesTheInternalCodeEvenWhenItIsEmpty) {
  Internal("event/10", "exit 1");
  EXPECT_TRUE(Invoke().IsOk());
  EXPECT_EQ(exitCode_, 1);
  MakeExternal("event");
  EXPECT_TRUE(Invoke().IsOk());
  EXPECT_EQ(exitCode_, 0);
  External("event/10", "exit 1");
  EXPECT_TRUE(Invoke().IsOk());
  EXPECT_EQ(exitCode_, 1);
}

TEST_F(Invocation, AnExternalFileInPlaceOfTheDirectoryIsAFailure) {
  Internal("event/10", "exit 1");
  directory_.Write("external/event", "");
  EXPECT_EQ(Invoke().Message(),
            "failed to list directory '" + (directory_ / "external/event") + "'");
  EXPECT_EQ(exitCode_, 1);
}

// It is there, and may hold the script that would have refused.
TEST_F(Invocation, AnExternalDirectoryThatCannotBeReadIsAFailureToo) {
  MakeInternal("event");
  MakeExternal("event");
  for (const char* readable : {"", "/internal", "/internal/event", "/external"}) {
    fs::permissions(directory_.Path() + readable, fs::perms(0755));
  }
  fs::permissions(directory_ / "external/event", fs::perms::none);
  const int status = test::RunInChild([this] {
    if (::geteuid() == 0 && !stdext::drop_privilege("nobody").IsOk()) {
      ::_exit(2);
    }
    ::_exit(Invoke().Message() ==
                    "failed to list directory '" + (directory_ / "external/event") + "'"
                ? 0
                : 1);
  });
  fs::permissions(directory_ / "external/event", fs::perms::owner_all);
  EXPECT_EQ(status, 0);
}

TEST_F(Invocation, AFailingScriptEndsItAndItsOutputIsDropped) {
  Internal("event/10", "echo first; exit 1");
  Internal("event/20", "echo dropped; exit 2");
  Internal("event/30", "echo later");
  External("event/10", "echo external");
  EXPECT_EQ(Invoke().Message(),
            "failed to call script '" + (directory_ / "internal/event/20") + "' as 2");
  EXPECT_EQ(output_, "first\n");
  EXPECT_EQ(exitCode_, 1);
}

TEST_F(Invocation, AnExternalScriptMayFailToo) {
  Internal("event/10", "echo internal");
  External("event/10", "exit 255");
  EXPECT_EQ(Invoke().Message(),
            "failed to call script '" + (directory_ / "external/event/10") + "' as 255");
  EXPECT_EQ(output_, "internal\n");
}

TEST_F(Invocation, AKilledScriptIsAFailureWithMinusOne) {
  Internal("event/10", "kill -KILL $$");
  EXPECT_EQ(Invoke().Message(),
            "failed to call script '" + (directory_ / "internal/event/10") + "' as -1");
}

TEST_F(Invocation, AScriptMayPrintAlmostAMillionBytes) {
  Internal("event/10", "head -c 999999 /dev/zero");
  EXPECT_TRUE(Invoke().IsOk());
  EXPECT_EQ(output_.size(), 999999U);
  Internal("event/10", "head -c 1000000 /dev/zero");
  EXPECT_EQ(Invoke().Message(),
            "failed to call script '" + (directory_ / "internal/event/10") + "' as -1");
  EXPECT_THAT(log_.Lines(), Contains(HasSubstr("stdout output buffer size 1000000 overrun")));
}

TEST_F(Invocation, GivesAScriptThreeHundredSeconds) {
  Internal("event/10", "exit 0");
  EXPECT_TRUE(Invoke().IsOk());
  EXPECT_THAT(log_.Lines(), Contains(HasSubstr("(300 secs)")));
}

}  // namespace
