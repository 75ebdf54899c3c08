#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tavlo {

/// Every setting of the daemon: its built-in default, overridden by a JSON configuration file.
/// Written during start-up only; afterwards any thread may read it.
class AppSettings {
 public:
  AppSettings();
  AppSettings(const AppSettings&) = delete;
  AppSettings& operator=(const AppSettings&) = delete;
  virtual ~AppSettings() = default;

  /// Puts the value of the configuration key `key` (exact, case matters) as text into `value`.
  /// Returns false, leaving `value` alone, when there is no such key.
  virtual bool GetConfigValue(const std::string& key, std::string* value) const;

  /// Overrides settings from the file at `path`, of at most 1 MiB. A key that is missing, or whose
  /// value has the wrong JSON type or is out of range, keeps its earlier value without a message,
  /// deliberately; unknown keys are ignored. `changed`, which may be null, is set to true when a
  /// value really changed and left alone otherwise. Returns false, after one logged error and with
  /// nothing changed, when the file cannot be read or parsed.
  virtual bool LoadConfigFile(const std::string& path, bool* changed);

  virtual uint16_t AgentDstPort() const;
  virtual uint16_t AgentHttpPort() const;
  virtual uint16_t AgentHttpsPort() const;
  virtual std::string LanInterface() const;
  virtual std::string AgentDstAddr() const;
  virtual std::string AgentPrefix() const;
  virtual std::string AgentUser() const;
  virtual std::string AgentDirectory() const;
  virtual std::string InternalHooksDirectory() const;
  virtual std::string ExternalHooksDirectory() const;
  virtual std::string AgentDataPath() const;
  virtual std::string RouterInfoPath() const;
  virtual std::string DeviceDiscoveryPath() const;
  virtual std::string RootPrefix() const;

  /// What a file may say for one key: an integer within [smallest, largest], or a text.
  struct Key {
    std::string name;
    bool isNumber;
    int32_t smallest;
    int32_t largest;
  };

  /// All keys. In the header, so that a program that does not ask has none of it.
  std::vector<Key> Keys() const {
    std::vector<Key> keys;
    for (const Entry& entry : entries_) {
      keys.push_back({entry.key, entry.type == 'i', entry.smallest, entry.largest});
    }
    return keys;
  }

 private:
  /// One configuration key. `type` is 'i' for an integer within [smallest, largest], held in
  /// `number`, or 's' for a string, held in `text`.
  struct Entry {
    char type;
    const char* key;
    int32_t* number;
    std::string* text;
    int32_t smallest;
    int32_t largest;
  };

  static Entry Port(const char* key, int32_t* field);
  static Entry Text(const char* key, std::string* field);

  int32_t agentDstPort_ = 60277;
  int32_t agentHttpPort_ = 60278;
  int32_t agentHttpsPort_ = 60279;
  std::string lanInterface_ = "br0";
  std::string agentDstAddr_ = "127.0.0.1";
  std::string agentPrefix_;
  std::string agentUser_;
  std::string agentDataPath_;
  std::string agentDirectory_ = "/tmp/qvd/data/agent";
  std::string internalHooksDirectory_ = "/tmp/qvd/hooks";
  std::string externalHooksDirectory_;
  std::string routerInfoPath_ = "/tmp/qvd/data/router_info";
  std::string deviceDiscoveryPath_ = "/tmp/qvd/tmp/devicelist.json";
  std::string rootPrefix_ = "/tmp/qvd";
  std::vector<Entry> entries_;
};

}  // namespace tavlo
