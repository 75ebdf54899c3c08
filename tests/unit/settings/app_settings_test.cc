#include "settings/app_settings.h"

#include <cstddef>
#include <cstring>
#include <iterator>
#include <string>
#include <string_view>
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

struct KeyAndValue {
  std::string_view key;
  std::string_view value;

  bool IsPort() const { return key.find("Port") != std::string_view::npos; }
};

constexpr KeyAndValue kDefaults[] = {
    {"agentDstPort", "60277"},
    {"agentHttpPort", "60278"},
    {"agentHttpsPort", "60279"},
    {"lanInterface", "br0"},
    {"agentDstAddr", "127.0.0.1"},
    {"agentPrefix", ""},
    {"agentUser", ""},
    {"routerInfoPath", "/tmp/qvd/data/router_info"},
    {"agentDataPath", ""},
    {"agentDirectory", "/tmp/qvd/data/agent"},
    {"internalHooksDirectory", "/tmp/qvd/hooks"},
    {"externalHooksDirectory", ""},
    {"deviceDiscoveryPath", "/tmp/qvd/tmp/devicelist.json"},
    {"rootPrefix", "/tmp/qvd"},
};

const char* const kEveryKeyInAnotherOrder = R"({
  "rootPrefix": "/r", "deviceDiscoveryPath": "/dd", "externalHooksDirectory": "/e",
  "internalHooksDirectory": "/i", "agentDirectory": "/a", "agentDataPath": "/d",
  "routerInfoPath": "/ri", "agentUser": "u", "agentPrefix": "/p", "agentDstAddr": "192.0.2.1",
  "lanInterface": "lan0", "agentHttpsPort": 3, "agentHttpPort": 2, "agentDstPort": 1 })";

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
  for (const auto& [key, value] : kDefaults) {
    EXPECT_EQ(Value(settings, key), value) << key;
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
  EXPECT_EQ(settings_.AgentDstPort(), 60277);
  EXPECT_EQ(settings_.AgentHttpPort(), 60278);
  EXPECT_EQ(settings_.AgentHttpsPort(), 60279);
  EXPECT_EQ(settings_.LanInterface(), "br0");
  EXPECT_EQ(settings_.AgentDstAddr(), "127.0.0.1");
  EXPECT_EQ(settings_.AgentPrefix(), "");
  EXPECT_EQ(settings_.AgentUser(), "");
  EXPECT_EQ(settings_.AgentDataPath(), "");
  EXPECT_EQ(settings_.AgentDirectory(), "/tmp/qvd/data/agent");
  EXPECT_EQ(settings_.InternalHooksDirectory(), "/tmp/qvd/hooks");
  EXPECT_EQ(settings_.ExternalHooksDirectory(), "");
  EXPECT_EQ(settings_.RouterInfoPath(), "/tmp/qvd/data/router_info");
  EXPECT_EQ(settings_.DeviceDiscoveryPath(), "/tmp/qvd/tmp/devicelist.json");
  EXPECT_EQ(settings_.RootPrefix(), "/tmp/qvd");
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
  ASSERT_EQ(keys.size(), std::size(kDefaults));
  for (size_t i = 0; i < keys.size(); ++i) {
    EXPECT_EQ(keys[i].name, kDefaults[i].key);
    EXPECT_EQ(keys[i].isNumber, kDefaults[i].IsPort()) << keys[i].name;
    EXPECT_EQ(keys[i].largest, keys[i].isNumber ? 65535 : 0) << keys[i].name;
    EXPECT_EQ(keys[i].smallest, keys[i].isNumber ? 1 : 0) << keys[i].name;
  }
}

TEST_F(SettingsLookUp, ReplacesTheOutput) {
  std::string value = "earlier";
  EXPECT_TRUE(settings_.GetConfigValue("agentPrefix", &value));
  EXPECT_EQ(value, "");
}

// The position of a virtual function in the object's table, after the two destructors.
template <typename Function>
ptrdiff_t Slot(Function function) {
  ptrdiff_t words[2] = {};
  static_assert(sizeof function == sizeof words);
  std::memcpy(words, &function, sizeof words);
  return words[0] / static_cast<ptrdiff_t>(sizeof(void*));
}

TEST(SettingsInterface, KeepsTheOrderOfItsVirtualFunctions) {
  EXPECT_EQ(Slot(&AppSettings::GetConfigValue), 2);
  EXPECT_EQ(Slot(&AppSettings::LoadConfigFile), 3);
  EXPECT_EQ(Slot(&AppSettings::AgentDstPort), 4);
  EXPECT_EQ(Slot(&AppSettings::AgentHttpPort), 5);
  EXPECT_EQ(Slot(&AppSettings::AgentHttpsPort), 6);
  EXPECT_EQ(Slot(&AppSettings::LanInterface), 7);
  EXPECT_EQ(Slot(&AppSettings::AgentDstAddr), 8);
  EXPECT_EQ(Slot(&AppSettings::AgentPrefix), 9);
  EXPECT_EQ(Slot(&AppSettings::AgentUser), 10);
  EXPECT_EQ(Slot(&AppSettings::AgentDirectory), 11);
  EXPECT_EQ(Slot(&AppSettings::InternalHooksDirectory), 12);
  EXPECT_EQ(Slot(&AppSettings::ExternalHooksDirectory), 13);
  EXPECT_EQ(Slot(&AppSettings::AgentDataPath), 14);
  EXPECT_EQ(Slot(&AppSettings::RouterInfoPath), 15);
  EXPECT_EQ(Slot(&AppSettings::DeviceDiscoveryPath), 16);
  EXPECT_EQ(Slot(&AppSettings::RootPrefix), 17);
}

// --- the file

TEST_F(SettingsFile, SetsEveryKey) {
  EXPECT_TRUE(Load(kEveryKeyInAnotherOrder));
  EXPECT_TRUE(changed_);
  EXPECT_EQ(settings_.AgentDstPort(), 1);
  EXPECT_EQ(settings_.AgentHttpPort(), 2);
  EXPECT_EQ(settings_.AgentHttpsPort(), 3);
  EXPECT_EQ(settings_.LanInterface(), "lan0");
  EXPECT_EQ(settings_.AgentDstAddr(), "192.0.2.1");
  EXPECT_EQ(settings_.AgentPrefix(), "/p");
  EXPECT_EQ(settings_.AgentUser(), "u");
  EXPECT_EQ(settings_.AgentDataPath(), "/d");
  EXPECT_EQ(settings_.AgentDirectory(), "/a");
  EXPECT_EQ(settings_.InternalHooksDirectory(), "/i");
  EXPECT_EQ(settings_.ExternalHooksDirectory(), "/e");
  EXPECT_EQ(settings_.RouterInfoPath(), "/ri");
  EXPECT_EQ(settings_.DeviceDiscoveryPath(), "/dd");
  EXPECT_EQ(settings_.RootPrefix(), "/r");
}

TEST_F(SettingsFile, SetsEachKeyOnItsOwn) {
  for (const KeyAndValue& set : kDefaults) {
    AppSettings settings;
    const std::string json = Member(set.key, set.IsPort() ? "80" : R"("80")");
    EXPECT_TRUE(settings.LoadConfigFile(Write("{" + json + "}"), nullptr));
    for (const KeyAndValue& other : kDefaults) {
      EXPECT_EQ(Value(settings, other.key), other.key == set.key ? "80" : other.value)
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
  for (const KeyAndValue& entry : kDefaults) {
    if (!entry.IsPort()) {
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
  const std::string path = Write(kEveryKeyInAnotherOrder);
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
  EXPECT_TRUE(Load(kEveryKeyInAnotherOrder));
  EXPECT_THAT(
      log_.Lines(),
      ElementsAre(Debug("Enter"), Debug("Reading config file " + path_), Debug("agentDstPort=1"),
                  Debug("agentHttpPort=2"), Debug("agentHttpsPort=3"), Debug("lanInterface=lan0"),
                  Debug("agentDstAddr=192.0.2.1"), Debug("agentPrefix=/p"), Debug("agentUser=u"),
                  Debug("routerInfoPath=/ri"), Debug("agentDataPath=/d"),
                  Debug("agentDirectory=/a"), Debug("internalHooksDirectory=/i"),
                  Debug("externalHooksDirectory=/e"), Debug("deviceDiscoveryPath=/dd"),
                  Debug("rootPrefix=/r"), Debug("Leave")));
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
