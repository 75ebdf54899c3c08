// What other programs of the router write: the router information and the device list.

#include <cstdint>
#include <optional>
#include <stdexcept>

#include <sys/stat.h>
#include <unistd.h>

#include "agent/device_list.h"
#include "ctl/checks.h"
#include "hooks/key_value_storage.h"
#include "util/file.h"

namespace tavlo::ctl {

namespace {

constexpr size_t kShortestKey = 16;

// The content of a file that is there, if the daemon's user may read it.
std::optional<std::string> Read(const CheckContext& context, const std::string& path,
                                const std::string& consequence) {
  struct stat info = {};
  if (::stat(path.c_str(), &info) == 0 && !S_ISREG(info.st_mode)) {
    context.findings->Add(path, "is no file: " + consequence, "put a file there");
    return std::nullopt;
  }
  if (static_cast<std::uintmax_t>(info.st_size) > stdext::kMaxFileSize) {
    context.findings->Add(
        path, "has more than " + std::to_string(stdext::kMaxFileSize) + " bytes: " + consequence,
        "mend what writes it");
    return std::nullopt;
  }
  std::string content;
  const Orx::Status status = stdext::file::without_lock(path).read(stdext::kMaxFileSize, &content);
  if (status.IsOk()) {
    return content;
  }
  if (context.user.May(path, R_OK)) {
    context.findings->AddUnseen(path, status.Message());
  }
  return std::nullopt;
}

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

void CheckDevices(const CheckContext& context, const std::string& path, const std::string& text,
                  const std::string& consequence) {
  const std::string cure = "mend what writes it";
  DeviceList list;
  std::string error;
  try {
    if (!ParseDeviceList(text, &list, &error)) {
      context.findings->Add(TextPlaces(path, text).Of(list.GetErrorOffset()),
                            "no JSON: " + error + ": " + consequence, cure);
    }
  } catch (const std::length_error& tooMuch) {
    context.findings->Add(path, tooMuch.what() + (": " + consequence), cure);
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
  const std::optional<std::string> text = Read(context, path, consequence);
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
  const std::optional<std::string> text = Read(context, path, consequence);
  if (text) {
    CheckDevices(context, path, *text, consequence);
  }
}

}  // namespace tavlo::ctl
