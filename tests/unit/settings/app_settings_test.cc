#include "settings/app_settings.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <iterator>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/faults.h"
#include "support/log_capture.h"
#include "support/temporary_directory.h"
#include "util/descriptor.h"
#include "util/file.h"

namespace {

using tavlo::AppSettings;
using testing::ElementsAre;
using testing::SizeIs;
using testing::StartsWith;

constexpr size_t kLargestFile = 1048576;

// The lines that LoadConfigFile logs.
std::string Error(const std::string& text) {
  return "ERROR: virtual bool tavlo::AppSettings::LoadConfigFile: " + text;
}
std::string Debug(const std::string& text) {
  return "DEBUG: virtual bool tavlo::AppSettings::LoadConfigFile: " + text;
}

// The position of a virtual function in the object's table, after the two destructors.
template <typename Function>
ptrdiff_t Slot(Function function) {
  ptrdiff_t words[2] = {};
  static_assert(sizeof function == sizeof words);
  std::memcpy(words, &function, sizeof words);
  return words[0] / static_cast<ptrdiff_t>(sizeof(void*));
}

std::string Text(uint16_t port) {
  return std::to_string(port);
}
std::string Text(const std::string& text) {
  return text;
}

struct Setting {
  template <typename Value>
  Setting(const char* name, const char* initial, ptrdiff_t place,
          Value (AppSettings::*getter)() const)
      : key(name),
        byDefault(initial),
        isPort(std::is_same_v<Value, uint16_t>),
        slot(place),
        slotOfGetter(Slot(getter)),
        get([getter](const AppSettings& settings) { return Text((settings.*getter)()); }) {}

  // A value that is not the default, and how it is written.
  std::string Other() const { return isPort ? std::to_string(slot) : "/" + key; }
  std::string OtherAsJson() const { return isPort ? Other() : '"' + Other() + '"'; }

  std::string key;
  std::string byDefault;
  bool isPort;
  ptrdiff_t slot;
  ptrdiff_t slotOfGetter;
  std::function<std::string(const AppSettings&)> get;
};

// Key, default, place among the virtual functions and getter, in the order of the log.
const Setting kSettings[] = {
    {"agentDstPort", "60277", 4, &AppSettings::AgentDstPort},
    {"agentHttpPort", "60278", 5, &AppSettings::AgentHttpPort},
    {"agentHttpsPort", "60279", 6, &AppSettings::AgentHttpsPort},
    {"lanInterface", "br0", 7, &AppSettings::LanInterface},
    {"agentDstAddr", "127.0.0.1", 8, &AppSettings::AgentDstAddr},
    {"agentPrefix", "", 9, &AppSettings::AgentPrefix},
    {"agentUser", "", 10, &AppSettings::AgentUser},
    {"routerInfoPath", "/tmp/qvd/data/router_info", 15, &AppSettings::RouterInfoPath},
    {"agentDataPath", "", 14, &AppSettings::AgentDataPath},
    {"agentDirectory", "/tmp/qvd/data/agent", 11, &AppSettings::AgentDirectory},
    {"internalHooksDirectory", "/tmp/qvd/hooks", 12, &AppSettings::InternalHooksDirectory},
    {"externalHooksDirectory", "", 13, &AppSettings::ExternalHooksDirectory},
    {"deviceDiscoveryPath", "/tmp/qvd/tmp/devicelist.json", 16, &AppSettings::DeviceDiscoveryPath},
    {"rootPrefix", "/tmp/qvd", 17, &AppSettings::RootPrefix},
};

// The last one first.
std::string EveryKey() {
  std::string members;
  for (const Setting& setting : kSettings) {
    const std::string comma = members.empty() ? "" : ", ";
    members.insert(0, '"' + setting.key + "\": " + setting.OtherAsJson() + comma);
  }
  return "{" + members + "}";
}

// One member of a JSON object.
std::string Member(std::string_view key, const std::string& value) {
  return "\"" + std::string(key) + "\": " + value;
}

std::string Value(const AppSettings& settings, std::string_view key) {
  std::string value;
  EXPECT_TRUE(settings.GetConfigValue(std::string(key), &value)) << key;
  return value;
}

void ExpectDefaults(const AppSettings& settings) {
  for (const Setting& setting : kSettings) {
    EXPECT_EQ(Value(settings, setting.key), setting.byDefault) << setting.key;
  }
}

class Settings : public testing::Test {
 protected:
  std::string Write(const std::string& json) const { return directory_.Write("config", json); }

  bool Load(const std::string& json) {
    changed_ = false;
    return settings_.LoadConfigFile(Write(json), &changed_);
  }

  const test::LogCapture log_;
  const test::TemporaryDirectory directory_;
  const std::string path_ = directory_ / "config";
  AppSettings settings_;
  bool changed_ = false;
};

using SettingsDefaults = Settings;
using SettingsFile = Settings;
using SettingsFailure = Settings;
using SettingsPort = Settings;
using SettingsText = Settings;
using SettingsChange = Settings;
using SettingsLog = Settings;
using SettingsLookUp = Settings;

// --- defaults and look-ups

TEST_F(SettingsDefaults, AreGivenByKey) {
  ExpectDefaults(settings_);
}

TEST_F(SettingsDefaults, AreGivenByTheGetters) {
  for (const Setting& setting : kSettings) {
    EXPECT_EQ(setting.get(settings_), setting.byDefault) << setting.key;
  }
}

TEST_F(SettingsDefaults, StayWithAFileThatSetsNothing) {
  EXPECT_TRUE(Load("{}"));
  EXPECT_FALSE(changed_);
  ExpectDefaults(settings_);
}

TEST_F(SettingsDefaults, DoNotFollowTheRootPrefix) {
  EXPECT_TRUE(Load(R"({"rootPrefix": "/elsewhere"})"));
  EXPECT_EQ(settings_.RootPrefix(), "/elsewhere");
  EXPECT_EQ(settings_.AgentDirectory(), "/tmp/qvd/data/agent");
  EXPECT_EQ(settings_.InternalHooksDirectory(), "/tmp/qvd/hooks");
  EXPECT_EQ(settings_.RouterInfoPath(), "/tmp/qvd/data/router_info");
  EXPECT_EQ(settings_.DeviceDiscoveryPath(), "/tmp/qvd/tmp/devicelist.json");
}

TEST_F(SettingsLookUp, OfAPortGivesDecimalText) {
  EXPECT_TRUE(Load(R"({"agentDstPort": 8})"));
  EXPECT_EQ(Value(settings_, "agentDstPort"), "8");
}

TEST_F(SettingsLookUp, OfAnUnknownKeyFailsAndLeavesTheOutputAlone) {
  for (const char* key : {"AgentDstPort", "agentdstport", "agentDstPor", "agentDstPortX",
                          " agentDstPort", "agentDstPort ", "", "unknown"}) {
    std::string value = "untouched";
    EXPECT_FALSE(settings_.GetConfigValue(key, &value)) << key;
    EXPECT_EQ(value, "untouched") << key;
  }
}

TEST_F(SettingsLookUp, KnowsWhatAFileMaySayForEachKey) {
  const std::vector<AppSettings::Key> keys = settings_.Keys();
  ASSERT_EQ(keys.size(), std::size(kSettings));
  for (size_t i = 0; i < keys.size(); ++i) {
    EXPECT_EQ(keys[i].name, kSettings[i].key);
    EXPECT_EQ(keys[i].isNumber, kSettings[i].isPort) << keys[i].name;
    EXPECT_EQ(keys[i].largest, keys[i].isNumber ? 65535 : 0) << keys[i].name;
    EXPECT_EQ(keys[i].smallest, keys[i].isNumber ? 1 : 0) << keys[i].name;
  }
}

TEST_F(SettingsLookUp, ReplacesTheOutput) {
  std::string value = "earlier";
  EXPECT_TRUE(settings_.GetConfigValue("agentPrefix", &value));
  EXPECT_EQ(value, "");
}

TEST(SettingsInterface, KeepsTheOrderOfItsVirtualFunctions) {
  EXPECT_EQ(Slot(&AppSettings::GetConfigValue), 2);
  EXPECT_EQ(Slot(&AppSettings::LoadConfigFile), 3);
  for (const Setting& setting : kSettings) {
    EXPECT_EQ(setting.slotOfGetter, setting.slot) << setting.key;
  }
}

// --- the file

TEST_F(SettingsFile, SetsEveryKey) {
  EXPECT_TRUE(Load(EveryKey()));
  EXPECT_TRUE(changed_);
  for (const Setting& setting : kSettings) {
    EXPECT_EQ(setting.get(settings_), setting.Other()) << setting.key;
  }
}

TEST_F(SettingsFile, SetsEachKeyOnItsOwn) {
  for (const Setting& set : kSettings) {
    AppSettings settings;
    const std::string json = Member(set.key, set.OtherAsJson());
    EXPECT_TRUE(settings.LoadConfigFile(Write("{" + json + "}"), nullptr));
    for (const Setting& other : kSettings) {
      EXPECT_EQ(Value(settings, other.key), other.key == set.key ? set.Other() : other.byDefault)
          << other.key << " after setting " << set.key;
    }
  }
}

TEST_F(SettingsFile, MayHoldUnknownKeys) {
  EXPECT_TRUE(
      Load(R"({"AgentDstPort": 1, "comment": [[[[["x"]]]]], "agentHttpPort": 81, "": null})"));
  EXPECT_EQ(settings_.AgentDstPort(), 60277);
  EXPECT_EQ(settings_.AgentHttpPort(), 81);
}

TEST_F(SettingsFile, MayHaveTextBehindItsObject) {
  EXPECT_TRUE(Load(R"({"agentUser": "nobody"} and more)"));
  EXPECT_EQ(settings_.AgentUser(), "nobody");
}

TEST_F(SettingsFile, KeepsEarlierValuesOfKeysThatItLacks) {
  EXPECT_TRUE(Load(R"({"agentUser": "first", "agentDstPort": 80})"));
  EXPECT_TRUE(Load(R"({"agentPrefix": "/second"})"));
  EXPECT_EQ(settings_.AgentUser(), "first");
  EXPECT_EQ(settings_.AgentDstPort(), 80);
  EXPECT_EQ(settings_.AgentPrefix(), "/second");
}

TEST_F(SettingsFile, OfTheLargestSizeIsRead) {
  std::string json = R"({"agentUser": "last"})";
  json.insert(1, kLargestFile - json.size(), ' ');
  ASSERT_EQ(json.size(), 1048576U);
  EXPECT_TRUE(Load(json));
  EXPECT_EQ(settings_.AgentUser(), "last");
}

TEST_F(SettingsFile, IsReadWithoutALock) {
  const std::string path = Write(R"({"agentUser": "u"})");
  const stdext::descriptor locked(stdext::lock_file(path, 1, 1));
  ASSERT_TRUE(locked.is_open());
  const test::Fault attempts("flock", 0, 0, 0);
  EXPECT_TRUE(settings_.LoadConfigFile(path, nullptr));
  EXPECT_EQ(settings_.AgentUser(), "u");
  EXPECT_EQ(attempts.Calls(), 0);
}

// --- failures

TEST_F(SettingsFailure, IsAMissingFile) {
  const std::string path = directory_ / "missing";
  EXPECT_FALSE(settings_.LoadConfigFile(path, &changed_));
  EXPECT_THAT(log_.Messages(),
              ElementsAre(Error("Failed to read file " + path + ": 2 No such file or directory")));
  EXPECT_FALSE(changed_);
}

TEST_F(SettingsFailure, IsADirectory) {
  EXPECT_FALSE(settings_.LoadConfigFile(directory_.Path(), nullptr));
  EXPECT_THAT(log_.Messages(),
              ElementsAre(StartsWith(Error("Failed to read file " + directory_.Path()))));
}

TEST_F(SettingsFailure, IsAFileOneByteTooLarge) {
  std::string json = R"({"agentUser": "last"})";
  json.insert(1, kLargestFile + 1 - json.size(), ' ');
  ASSERT_EQ(json.size(), 1048577U);
  EXPECT_FALSE(Load(json));
  EXPECT_THAT(log_.Messages(),
              ElementsAre(Error("Failed to read file " + path_ + ": 27 File too large")));
  EXPECT_EQ(settings_.AgentUser(), "");
}

class SettingsUnparsable : public Settings, public testing::WithParamInterface<std::string> {};

TEST_P(SettingsUnparsable, TextIsAFailureThatLeavesEarlierValues) {
  ASSERT_TRUE(Load(R"({"agentUser": "earlier", "agentDstPort": 80})"));
  const size_t before = log_.Messages().size();

  EXPECT_FALSE(Load(GetParam()));

  std::vector<std::string> messages = log_.Messages();
  messages.erase(messages.begin(), messages.begin() + static_cast<ptrdiff_t>(before));
  EXPECT_THAT(messages, ElementsAre(Error("Failed to parse config file " + path_)));
  EXPECT_FALSE(changed_);
  EXPECT_EQ(settings_.AgentUser(), "earlier");
  EXPECT_EQ(settings_.AgentDstPort(), 80);
}

INSTANTIATE_TEST_SUITE_P(Each, SettingsUnparsable,
                         testing::Values("", " \n", "null", "garbage", "agentUser: u", "{",
                                         R"({"agentUser": "new")", R"({"agentUser": "new)",
                                         R"({"agentUser": "new",, "agentDstPort": 1})",
                                         R"({"agentUser" "new"})", R"(["agentUser", "new")",
                                         std::string("\0{}", 3), "\xff\xfe{"));

class SettingsOtherRoot : public Settings, public testing::WithParamInterface<std::string> {};

TEST_P(SettingsOtherRoot, ParsesAndSetsNothing) {
  EXPECT_TRUE(Load(GetParam()));
  EXPECT_FALSE(changed_);
  ExpectDefaults(settings_);
  EXPECT_THAT(log_.Messages(), ElementsAre(Debug("Reading config file " + path_)));
}

INSTANTIATE_TEST_SUITE_P(Each, SettingsOtherRoot,
                         testing::Values("[]", R"(["agentUser", "u"])", R"([{"agentUser": "u"}])",
                                         "42", "42\n", "-1", "1.5", R"("agentUser")", "true",
                                         "false", "true\n"));

// --- ports

TEST_F(SettingsPort, AcceptsTheSmallestAndTheLargest) {
  EXPECT_TRUE(Load(R"({"agentDstPort": 1, "agentHttpPort": 1, "agentHttpsPort": 1})"));
  EXPECT_EQ(settings_.AgentDstPort(), 1);
  EXPECT_EQ(settings_.AgentHttpPort(), 1);
  EXPECT_EQ(settings_.AgentHttpsPort(), 1);
  EXPECT_TRUE(Load(R"({"agentDstPort": 65535, "agentHttpPort": 65535, "agentHttpsPort": 65535})"));
  EXPECT_EQ(settings_.AgentDstPort(), 65535);
  EXPECT_EQ(settings_.AgentHttpPort(), 65535);
  EXPECT_EQ(settings_.AgentHttpsPort(), 65535);
}

class SettingsPortIgnored : public Settings, public testing::WithParamInterface<const char*> {};

TEST_P(SettingsPortIgnored, WithoutAMessage) {
  const std::string value = GetParam();
  EXPECT_TRUE(Load(R"({"agentDstPort": )" + value + R"(, "agentHttpPort": )" + value +
                   R"(, "agentHttpsPort": )" + value + "}"));
  EXPECT_FALSE(changed_);
  EXPECT_EQ(settings_.AgentDstPort(), 60277);
  EXPECT_EQ(settings_.AgentHttpPort(), 60278);
  EXPECT_EQ(settings_.AgentHttpsPort(), 60279);
  EXPECT_THAT(log_.Messages(), ElementsAre(Debug("Reading config file " + path_)));
}

INSTANTIATE_TEST_SUITE_P(OutOfRange, SettingsPortIgnored,
                         testing::Values("0", "-0", "-1", "65536", "65616", "2147483647",
                                         "-2147483648"));
INSTANTIATE_TEST_SUITE_P(BeyondThirtyTwoBits, SettingsPortIgnored,
                         testing::Values("4294967376", "-4294967216", "9223372036854775807",
                                         "18446744073709551696", "99999999999999999999999"));
INSTANTIATE_TEST_SUITE_P(OfAnotherType, SettingsPortIgnored,
                         testing::Values(R"("80")", R"("")", "80.0", "8e1", "null", "true", "false",
                                         "[80]", R"({"agentDstPort": 80})"));

TEST_F(SettingsPort, ThatIsIgnoredKeepsTheEarlierValue) {
  EXPECT_TRUE(Load(R"({"agentDstPort": 80})"));
  EXPECT_TRUE(Load(R"({"agentDstPort": 65536})"));
  EXPECT_EQ(settings_.AgentDstPort(), 80);
}

TEST_F(SettingsPort, ThatIsIgnoredDoesNotAffectOtherKeys) {
  EXPECT_TRUE(Load(R"({"agentDstPort": "80", "agentHttpPort": 81, "agentUser": "u"})"));
  EXPECT_EQ(settings_.AgentHttpPort(), 81);
  EXPECT_EQ(settings_.AgentUser(), "u");
}

// --- texts

class SettingsTextIgnored : public Settings, public testing::WithParamInterface<const char*> {};

TEST_P(SettingsTextIgnored, WithoutAMessage) {
  std::string json;
  for (const Setting& entry : kSettings) {
    if (!entry.isPort) {
      json += Member(entry.key, GetParam()) + ",";
    }
  }
  EXPECT_TRUE(Load("{" + json + Member("unknown", "0") + "}"));
  EXPECT_FALSE(changed_);
  ExpectDefaults(settings_);
  EXPECT_THAT(log_.Messages(), ElementsAre(Debug("Reading config file " + path_)));
}

INSTANTIATE_TEST_SUITE_P(OfAnotherType, SettingsTextIgnored,
                         testing::Values("5", "1.5", "null", "true", "false", R"(["a"])",
                                         R"({"a": "b"})"));

TEST_F(SettingsText, MayBeEmpty) {
  EXPECT_TRUE(Load(R"({"lanInterface": ""})"));
  EXPECT_EQ(settings_.LanInterface(), "");
  EXPECT_TRUE(changed_);
}

TEST_F(SettingsText, KeepsUtf8AndOtherBytes) {
  EXPECT_TRUE(Load("{\"agentPrefix\": \"/\xc3\xbc\xff\", \"agentUser\": \" u \"}"));
  EXPECT_EQ(settings_.AgentPrefix(), "/\xc3\xbc\xff");
  EXPECT_EQ(settings_.AgentUser(), " u ");
}

TEST_F(SettingsText, HasItsEscapesResolved) {
  EXPECT_TRUE(Load(R"({"agentPrefix": "\/a\"\\\n\u00fc"})"));
  EXPECT_EQ(settings_.AgentPrefix(), "/a\"\\\n\xc3\xbc");
}

TEST_F(SettingsText, MayHoldANul) {
  const std::string text("a\0b", 3);
  EXPECT_TRUE(Load(R"({"agentPrefix": "a\u0000b"})"));
  EXPECT_EQ(settings_.AgentPrefix(), text);
  EXPECT_EQ(Value(settings_, "agentPrefix"), text);
}

TEST_F(SettingsText, IsHandedOutAsACopy) {
  std::string copy = settings_.LanInterface();
  copy = "other";
  EXPECT_EQ(settings_.LanInterface(), "br0");
}

// --- the change flag

TEST_F(SettingsChange, IsToldTheFirstTimeOnly) {
  const std::string path = Write(EveryKey());
  bool changed = false;
  EXPECT_TRUE(settings_.LoadConfigFile(path, &changed));
  EXPECT_TRUE(changed);
  changed = false;
  EXPECT_TRUE(settings_.LoadConfigFile(path, &changed));
  EXPECT_FALSE(changed);
}

TEST_F(SettingsChange, IsNeverTakenBack) {
  changed_ = true;
  EXPECT_TRUE(settings_.LoadConfigFile(Write("{}"), &changed_));
  EXPECT_TRUE(changed_);
  EXPECT_TRUE(settings_.LoadConfigFile(Write(R"({"agentDstPort": 60277})"), &changed_));
  EXPECT_TRUE(changed_);
  EXPECT_FALSE(settings_.LoadConfigFile(Write("garbage"), &changed_));
  EXPECT_TRUE(changed_);
}

TEST_F(SettingsChange, IsNotToldForTheDefaultsWrittenOut) {
  EXPECT_TRUE(Load(R"({"agentDstPort": 60277, "lanInterface": "br0", "agentUser": ""})"));
  EXPECT_FALSE(changed_);
}

TEST_F(SettingsChange, IsToldForOnePortOrText) {
  EXPECT_TRUE(Load(R"({"agentDstPort": 60277, "agentHttpsPort": 60280})"));
  EXPECT_TRUE(changed_);
  EXPECT_TRUE(Load(R"({"rootPrefix": "/tmp/qve"})"));
  EXPECT_TRUE(changed_) << "the same length, other bytes";
  EXPECT_TRUE(Load(R"({"rootPrefix": "/tmp/qve/"})"));
  EXPECT_TRUE(changed_) << "a longer one with the same beginning";
  EXPECT_TRUE(Load(R"({"rootPrefix": "/tmp/qve/\u0000"})"));
  EXPECT_TRUE(changed_) << "a NUL counts";
}

TEST_F(SettingsChange, IsNotToldWhenALaterKeyIsUnchanged) {
  EXPECT_TRUE(Load(R"({"agentDstPort": 80, "rootPrefix": "/tmp/qvd"})"));
  EXPECT_TRUE(changed_) << "an unchanged key does not take back what an earlier one said";
}

TEST_F(SettingsChange, NeedNotBeAskedFor) {
  EXPECT_TRUE(
      settings_.LoadConfigFile(Write(R"({"agentDstPort": 80, "agentUser": "u"})"), nullptr));
  EXPECT_EQ(settings_.AgentDstPort(), 80);
  EXPECT_EQ(settings_.AgentUser(), "u");
}

// --- the log

TEST_F(SettingsLog, TellsEachValueInTheOrderOfReading) {
  EXPECT_TRUE(Load(EveryKey()));
  std::vector<std::string> lines = {Debug("Enter"), Debug("Reading config file " + path_)};
  for (const Setting& setting : kSettings) {
    lines.push_back(Debug(setting.key + "=" + setting.Other()));
  }
  lines.push_back(Debug("Leave"));
  EXPECT_EQ(log_.Lines(), lines);
}

TEST_F(SettingsLog, TellsAValueThatIsUnchangedToo) {
  EXPECT_TRUE(Load(R"({"agentDstPort": 60277, "agentUser": ""})"));
  EXPECT_THAT(log_.Messages(), ElementsAre(Debug("Reading config file " + path_),
                                           Debug("agentDstPort=60277"), Debug("agentUser=")));
}

TEST_F(SettingsLog, TellsOfLeavingAfterAFailureToo) {
  EXPECT_FALSE(settings_.LoadConfigFile(directory_ / "missing", nullptr));
  EXPECT_FALSE(Load("garbage"));
  const std::string enter = Debug("Enter");
  const std::string leave = Debug("Leave");
  const std::string error = Error("");
  EXPECT_THAT(log_.Lines(), ElementsAre(enter, StartsWith(error), leave,  //
                                        enter, StartsWith(error), leave));
}

TEST_F(SettingsLog, DoesNotTakeAPathForAFormat) {
  const std::string path = directory_ / "%s%n";
  EXPECT_FALSE(settings_.LoadConfigFile(path, nullptr));
  EXPECT_THAT(log_.Messages(),
              ElementsAre(Error("Failed to read file " + path + ": 2 No such file or directory")));
}

TEST_F(SettingsLookUp, LogsNothing) {
  std::string value;
  settings_.GetConfigValue("agentUser", &value);
  settings_.GetConfigValue("unknown", &value);
  EXPECT_THAT(log_.Lines(), SizeIs(0));
}

}  // namespace
