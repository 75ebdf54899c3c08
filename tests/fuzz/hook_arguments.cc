// The checks of every event's arguments. There are no scripts: an event is accepted or refused.

#include <array>
#include <set>

#include <sys/stat.h>

#include "fuzz/fuzz.h"
#include "hooks/hook_invoker.h"
#include "support/temporary_directory.h"

namespace {

using Texts = std::set<std::string>;

const Texts kSettingsReasons = {"user_settings", "device_list", "profile_list", "router_info"};
const Texts kDnsReasons = {"browsing_protection", "antibot", "content_filtering", "blacklist"};
const Texts kHttpReasons = {"browsing_protection", "antibot", "tracking_protection",
                            "content_filtering", "blacklist"};

constexpr std::array<const char*, 7> kEvents = {
    "settings_update", "block_device",   "http_block", "dns_block",
    "device_detected", "iot_protection", "agent"};

std::string MakeDirectories(const test::TemporaryDirectory& root) {
  for (const char* event : kEvents) {
    ::mkdir((root / event).c_str(), 0700);
  }
  return root.Path();
}

// Calls event number `event`; `*accepted` says whether the arguments are good ones.
Orx::Status Call(Orx::HookInvoker& invoker, int event, const std::string& a, const std::string& b,
                 const std::string& c, bool* accepted) {
  int exitCode = -1;
  switch (event) {
    case 0:
      *accepted = kSettingsReasons.count(a) != 0;
      return invoker.SettingsUpdate(a);
    case 1:
      *accepted = a == "reset" || ((a == "block" || a == "unblock") && !b.empty());
      return invoker.BlockDevice(a, b);
    case 2:
      *accepted = kHttpReasons.count(a) != 0 && !b.empty() && !c.empty();
      return invoker.HttpBlock(a, b, c);
    case 3:
      *accepted = kDnsReasons.count(a) != 0 && !b.empty() && !c.empty();
      return invoker.DnsBlock(a, b, c);
    case 4:
      *accepted = !a.empty();
      return invoker.DeviceDetected(a);
    case 5:
      *accepted = a == "flow_counter" && !b.empty() && !c.empty();
      return invoker.IotProtection(a, b, c);
    default:
      *accepted = !a.empty() && !b.empty();
      return invoker.Agent(a, b, c, &exitCode);
  }
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const test::TemporaryDirectory root;
  static Orx::HookInvoker invoker(MakeDirectories(root), root / "none");
  fuzz::Input input(data, size);
  const int event = input.Byte() % static_cast<int>(kEvents.size());
  const std::string a = input.Line();
  const std::string b = input.Line();
  bool accepted = false;
  const Orx::Status status = Call(invoker, event, a, b, input.Rest(), &accepted);
  fuzz::Require(status.IsOk() == accepted, "good arguments are accepted, and no others");
  fuzz::Require(status.IsOk() == status.Message().empty(), "a refusal has a text");
  return 0;
}
