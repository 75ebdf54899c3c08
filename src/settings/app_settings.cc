#include "settings/app_settings.h"

#include <memory>
#include <optional>

#include <json-c/json.h>

#include "util/file.h"
#include "util/log.h"

namespace tavlo {

namespace {

constexpr int32_t kSmallestPort = 1;
constexpr int32_t kLargestPort = 65535;

using JsonTree = std::shared_ptr<json_object>;

// Null when the text does not parse, or is the value null.
JsonTree ParseJson(const std::string& text) {
  const std::unique_ptr<json_tokener, decltype(&json_tokener_free)> tokener(json_tokener_new(),
                                                                            json_tokener_free);
  if (tokener == nullptr) {
    return nullptr;
  }
  // The terminating NUL is handed over too: without it the end of a bare number or word is not
  // recognised.
  const int length = static_cast<int>(text.size()) + 1;
  return {json_tokener_parse_ex(tokener.get(), text.c_str(), length), json_object_put};
}

// The value of `key` when the root holds it with the given type, else null.
json_object* Find(json_object* root, const char* key, json_type type) {
  json_object* value = nullptr;
  const bool found = json_object_is_type(root, json_type_object) != 0 &&
                     json_object_object_get_ex(root, key, &value) != 0 &&
                     json_object_is_type(value, type) != 0;
  return found ? value : nullptr;
}

std::optional<int32_t> NumberAt(json_object* root, const char* key) {
  json_object* value = Find(root, key, json_type_int);
  return value != nullptr ? std::optional<int32_t>(json_object_get_int(value)) : std::nullopt;
}

std::optional<std::string> TextAt(json_object* root, const char* key) {
  json_object* value = Find(root, key, json_type_string);
  if (value == nullptr) {
    return std::nullopt;
  }
  return std::string(json_object_get_string(value),
                     static_cast<size_t>(json_object_get_string_len(value)));
}

template <typename Value>
void Store(const Value& value, Value* field, bool* changed) {
  if (changed != nullptr && *field != value) {
    *changed = true;
  }
  *field = value;
}

}  // namespace

AppSettings::AppSettings() {
  entries_ = {
      Port("agentDstPort", &agentDstPort_),
      Port("agentHttpPort", &agentHttpPort_),
      Port("agentHttpsPort", &agentHttpsPort_),
      Text("lanInterface", &lanInterface_),
      Text("agentDstAddr", &agentDstAddr_),
      Text("agentPrefix", &agentPrefix_),
      Text("agentUser", &agentUser_),
      Text("routerInfoPath", &routerInfoPath_),
      Text("agentDataPath", &agentDataPath_),
      Text("agentDirectory", &agentDirectory_),
      Text("internalHooksDirectory", &internalHooksDirectory_),
      Text("externalHooksDirectory", &externalHooksDirectory_),
      Text("deviceDiscoveryPath", &deviceDiscoveryPath_),
      Text("rootPrefix", &rootPrefix_),
  };
}

AppSettings::Entry AppSettings::Port(const char* key, int32_t* field) {
  return {'i', key, field, nullptr, kSmallestPort, kLargestPort};
}

AppSettings::Entry AppSettings::Text(const char* key, std::string* field) {
  return {'s', key, nullptr, field, 0, 0};
}

bool AppSettings::GetConfigValue(const std::string& key, std::string* value) const {
  for (const Entry& entry : entries_) {
    if (key == entry.key) {
      *value = entry.type == 'i' ? std::to_string(*entry.number) : *entry.text;
      return true;
    }
  }
  return false;
}

bool AppSettings::LoadConfigFile(const std::string& path, bool* changed) {
  ORX_LOG_SCOPE();
  std::string content;
  const Orx::Status status = stdext::file::without_lock(path).read(stdext::kMaxFileSize, &content);
  if (!status.IsOk()) {
    ORX_LOG(Orx::Log::kError, "%s", status.Message().c_str());
    return false;
  }
  const JsonTree root = ParseJson(content);
  if (root == nullptr) {
    ORX_LOG(Orx::Log::kError, "Failed to parse config file %s", path.c_str());
    return false;
  }
  ORX_LOG(Orx::Log::kDebug, "Reading config file %s", path.c_str());
  for (const Entry& entry : entries_) {
    if (entry.type == 'i') {
      const auto number = NumberAt(root.get(), entry.key);
      if (number && *number >= entry.smallest && *number <= entry.largest) {
        Store(*number, entry.number, changed);
        ORX_LOG(Orx::Log::kDebug, "%s=%d", entry.key, *number);
      }
    } else if (const auto text = TextAt(root.get(), entry.key)) {
      Store(*text, entry.text, changed);
      ORX_LOG(Orx::Log::kDebug, "%s=%s", entry.key, text->c_str());
    }
  }
  return true;
}

uint16_t AppSettings::AgentDstPort() const {
  return static_cast<uint16_t>(agentDstPort_);
}
uint16_t AppSettings::AgentHttpPort() const {
  return static_cast<uint16_t>(agentHttpPort_);
}
uint16_t AppSettings::AgentHttpsPort() const {
  return static_cast<uint16_t>(agentHttpsPort_);
}
std::string AppSettings::LanInterface() const {
  return lanInterface_;
}
std::string AppSettings::AgentDstAddr() const {
  return agentDstAddr_;
}
std::string AppSettings::AgentPrefix() const {
  return agentPrefix_;
}
std::string AppSettings::AgentUser() const {
  return agentUser_;
}
std::string AppSettings::AgentDirectory() const {
  return agentDirectory_;
}
std::string AppSettings::InternalHooksDirectory() const {
  return internalHooksDirectory_;
}
std::string AppSettings::ExternalHooksDirectory() const {
  return externalHooksDirectory_;
}
std::string AppSettings::AgentDataPath() const {
  return agentDataPath_;
}
std::string AppSettings::RouterInfoPath() const {
  return routerInfoPath_;
}
std::string AppSettings::DeviceDiscoveryPath() const {
  return deviceDiscoveryPath_;
}
std::string AppSettings::RootPrefix() const {
  return rootPrefix_;
}

}  // namespace tavlo
