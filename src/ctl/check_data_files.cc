// What other programs of the router write: the router information and the device list.

#include <unistd.h>

#include "agent/device_list.h"
#include "ctl/checks.h"
#include "hooks/key_value_storage.h"

namespace tavlo::ctl {

namespace {

constexpr size_t kShortestKey = 16;

void CheckKey(const CheckContext& context, const std::string& path, const std::string& key) {
  if (key.find_last_not_of(" \t\r") != key.size() - 1) {
    context.findings->Add(path,
                          "the pairing key ends in a blank or a carriage return, which belongs to "
                          "it: no client's key fits",
                          "end the line behind the key, with a line feed alone");
  } else if (key.size() < kShortestKey) {
    context.findings->Add(
        path,
        "the pairing key has " + std::to_string(key.size()) +
            " characters, and nothing limits the rate at which they are guessed",
        "take " + std::to_string(kShortestKey) + " or more at random: openssl rand -hex 16");
  }
}

}  // namespace

void CheckRouterInformation(const CheckContext& context) {
  const std::string path = context.settings.RouterInfoPath();
  const std::string consequence = "clients with the key are answered with 500";
  if (!CheckNeed(context,
                 {path, R_OK | W_OK, consequence,
                  "write it, with a line 'pairing_key: ...', or fix \"routerInfoPath\""})) {
    return;
  }
  const std::optional<std::string> text = ReadContent(context, path);
  if (!text) {
    return;
  }
  const auto values = Orx::KeyValueStorage::StringToMap(*text);
  const auto key = values.find("pairing_key");
  if (key == values.end() || key->second.empty()) {
    context.findings->Add(path, "has no line 'pairing_key: ...': " + consequence,
                          "add one, then send the daemon SIGHUP");
    return;
  }
  CheckKey(context, path, key->second);
}

void CheckDeviceList(const CheckContext& context) {
  const std::string path = context.settings.DeviceDiscoveryPath();
  const std::string consequence = "GET /api/mac is answered with 500";
  if (!CheckNeed(context, {path, R_OK | W_OK, consequence,
                           "let the router write it, or fix \"deviceDiscoveryPath\""})) {
    return;
  }
  const std::optional<std::string> text = ReadContent(context, path);
  DeviceList list;
  std::string error;
  if (text && !ParseDeviceList(*text, &list, &error)) {
    context.findings->Add(PlaceInFile(path, *text, list.GetErrorOffset()),
                          "no JSON: " + error + ": " + consequence, "mend what writes it");
  }
}

}  // namespace tavlo::ctl
