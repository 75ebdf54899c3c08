// GET /api/mac, as the client 127.0.0.1 sees it for many a device list.

#include <cerrno>
#include <cstdlib>
#include <ostream>
#include <random>

#include <fcntl.h>
#include <rapidjson/document.h>
#include <rapidjson/error/en.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <sys/file.h>
#include <unistd.h>

#include "agent/device_list.h"
#include "agent/host_fixture.h"
#include "support/faults.h"
#include "support/wait.h"

namespace {

using test::Fault;
using testing::AllOf;
using testing::Contains;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

class MacLookup : public test::HostFixture {
 protected:
  // The answer to a client while the device list has this text.
  std::string AnswerFor(const std::string& deviceList) {
    directory_.Write("devices.json", deviceList);
    RunHost(false);
    return Get("/api/mac");
  }

  void ExpectRefusal(const std::string& answer, const std::string& logLine) {
    EXPECT_THAT(answer, StartsWith("HTTP/1.1 500 Internal error\r\n"));
    EXPECT_THAT(log_.Lines(), Contains(logLine));
  }

  void ExpectUnreadable(const std::string& answer, const std::string& error) {
    const std::string path = directory_ / "devices.json";
    ExpectRefusal(answer,
                  "ERROR: bool tavlo::{anonymous}::GetJsonFromFile: File can not be read: " + path +
                      ". Error: " + error);
  }

  void ExpectBroken(const std::string& answer, const std::string& error) {
    const std::string path = directory_ / "devices.json";
    ExpectRefusal(answer,
                  "ERROR: bool tavlo::{anonymous}::GetJsonFromFile: File can not be parsed as "
                  "json: " +
                      path + ": " + error);
  }
};

constexpr const char* kNotFound =
    "ERROR: void tavlo::AgentHost::ApiGetMac: No MAC found for IP: 127.0.0.1";

TEST_F(MacLookup, AnswersWithTheMacAsPlainText) {
  const std::string answer =
      AnswerFor(R"({"devices":[{"ip":["127.0.0.1"],"mac":"00:11:22:33:44:55"}]})");
  EXPECT_THAT(answer, AllOf(StartsWith("HTTP/1.1 200 OK\r\n"),
                            HasSubstr("\r\nContent-Type: text/plain; charset=UTF-8\r\n"),
                            HasSubstr("\r\nContent-Length: 17\r\n"),
                            EndsWith("\r\n\r\n00:11:22:33:44:55")));
}

// A router without a clock of its own starts there.
TEST_F(MacLookup, AnswersWithADateInTheFirstSecondOfAllToo) {
  const test::FrozenSeconds clock(0);
  EXPECT_THAT(AnswerFor(R"({"devices":[{"ip":["127.0.0.1"],"mac":"m"}]})"),
              HasSubstr("\r\nDate: Thu, 01 Jan 1970 00:00:00 GMT\r\n"));
}

TEST_F(MacLookup, SendsTheMacUnchangedWhateverItHolds) {
  const std::string answer =
      AnswerFor(R"({"devices":[{"ip":["127.0.0.1"],"mac":" \u00e9\u0000\r\nX: y "}]})");
  EXPECT_THAT(answer, AllOf(HasSubstr("\r\nContent-Length: 11\r\n"),
                            EndsWith("\r\n\r\n" + std::string(" \xc3\xa9\0\r\nX: y ", 11))));
}

TEST_F(MacLookup, ReadsTheFileForEveryRequest) {
  EXPECT_THAT(AnswerFor(R"({"devices":[{"ip":["127.0.0.1"],"mac":"first"}]})"), EndsWith("first"));
  EXPECT_THAT(AnswerFor(R"({"devices":[{"ip":["127.0.0.1"],"mac":"second"}]})"),
              EndsWith("second"));
}

TEST_F(MacLookup, TheOtherListenerIsNotMetAtTheFilesLock) {
  std::string devices = R"({"devices":[)";
  for (int i = 0; i < 5000; ++i) {  // so many that they would meet
    devices += R"({"ip":["10.0.0.1","10.0.0.2"],"mac":"00:11:22:33:44:55"},)";
  }
  directory_.Write("devices.json", devices + R"({"ip":["127.0.0.1"],"mac":"m"}]})");
  RunHost(false);
  const uint16_t otherPort = test::FreePort();
  auto* const other =
      new tavlo::AgentHost(nullptr, true, "", directory_.Path(), directory_ / "devices.json",
                           otherPort, dstAddr_, dstPort_, "", heartbeat_);  // cannot be stopped
  std::thread([other] { other->Run(); }).detach();

  const Fault pauses("nanosleep", 0, 0, 0);  // counts
  // An emulator parses so long a list that a few requests meet.
  const int count = std::getenv("TAVLO_EMULATOR") != nullptr ? 5 : 100;
  const auto askOften = [count](uint16_t port) {
    for (int i = 0; i < count; ++i) {
      EXPECT_THAT(test::Exchange("127.0.0.1", port, "GET /api/mac HTTP/1.1\r\nHost: x\r\n\r\n"),
                  EndsWith("\r\n\r\nm"));
    }
  };
  std::thread otherClient(askOften, otherPort);
  askOften(port_);
  otherClient.join();
  EXPECT_EQ(pauses.Calls(), 0);
}

TEST_F(MacLookup, OtherMethodsAreRefused) {
  RunHost(false);
  for (const char* method : {"POST", "PUT", "DELETE", "PATCH"}) {
    const std::string request =
        std::string(method) + " /api/mac HTTP/1.1\r\nContent-Length: 0\r\n\r\n";
    EXPECT_THAT(test::Exchange("127.0.0.1", port_, request),
                StartsWith("HTTP/1.1 405 Method not allowed\r\n"))
        << method;
  }
}

TEST_F(MacLookup, TheTlsListenerAsksForNoKeyEither) {
  directory_.Write("devices.json", R"({"devices":[{"ip":["127.0.0.1"],"mac":"00:11"}]})");
  RunHost(true);
  EXPECT_THAT(Get("/api/mac"), EndsWith("\r\n\r\n00:11"));
}

struct DeviceList {
  const char* name;
  const char* text;
  const char* mac;  // null: no device found

  friend std::ostream& operator<<(std::ostream& out, const DeviceList& list) {
    return out << list.name;
  }
};

class MacLookupIn : public MacLookup, public testing::WithParamInterface<DeviceList> {};

TEST_P(MacLookupIn, FindsTheFirstDeviceThatHasBoth) {
  const std::string answer = AnswerFor(GetParam().text);
  if (GetParam().mac != nullptr) {
    EXPECT_THAT(answer, AllOf(StartsWith("HTTP/1.1 200 OK\r\n"),
                              EndsWith(std::string("\r\n\r\n") + GetParam().mac)));
  } else {
    ExpectRefusal(answer, kNotFound);
  }
}

INSTANTIATE_TEST_SUITE_P(
    All, MacLookupIn,
    testing::Values(
        DeviceList{"SeveralAddresses", R"({"devices":[{"ip":["10.0.0.1","127.0.0.1"],"mac":"m"}]})",
                   "m"},
        DeviceList{"SecondDevice",
                   R"({"devices":[{"ip":["10.0.0.1"],"mac":"a"},{"ip":["127.0.0.1"],"mac":"b"}]})",
                   "b"},
        DeviceList{"FirstOfTwoMatches",
                   R"({"devices":[{"ip":["127.0.0.1"],"mac":"a"},{"ip":["127.0.0.1"],"mac":"b"}]})",
                   "a"},
        DeviceList{"MatchWithoutMacIsPassedOver",
                   R"({"devices":[{"ip":["127.0.0.1"]},{"ip":["127.0.0.1"],"mac":"b"}]})", "b"},
        DeviceList{"MacOfAnotherTypeIsPassedOver",
                   R"({"devices":[{"ip":["127.0.0.1"],"mac":7},{"ip":["127.0.0.1"],"mac":"b"}]})",
                   "b"},
        DeviceList{"EmptyMacOfTheFirstMatchIsNone",
                   R"({"devices":[{"ip":["127.0.0.1"],"mac":""},{"ip":["127.0.0.1"],"mac":"b"}]})",
                   nullptr},
        DeviceList{"OtherMembersAreIgnored",
                   R"({"v":1,"devices":[{"x":{},"ip":["127.0.0.1"],"mac":"m","y":[]}],"z":null})",
                   "m"},
        DeviceList{"AddressesOfOtherTypesAreIgnored",
                   R"({"devices":[{"ip":[null,7,["127.0.0.1"],"127.0.0.1"],"mac":"m"}]})", "m"},
        DeviceList{"AddressMustBeEqualAsAWhole",
                   R"({"devices":[{"ip":["127.0.0.10","27.0.0.1","127.0.0.1 "],"mac":"m"}]})",
                   nullptr},
        DeviceList{"AddressWithNulIsAnotherOne",
                   R"({"devices":[{"ip":["127.0.0.1\u0000"],"mac":"m"}]})", nullptr},
        DeviceList{"AddressAsAPlainStringNeverMatches",
                   R"({"devices":[{"ip":"127.0.0.1","mac":"m"}]})", nullptr},
        DeviceList{"NoAddress", R"({"devices":[{"mac":"m"}]})", nullptr},
        DeviceList{"DeviceIsNotAnObject", R"({"devices":["127.0.0.1",null,[],7]})", nullptr},
        DeviceList{"NoDevices", R"({"devices":[]})", nullptr},
        DeviceList{"DevicesAreAnObject", R"({"devices":{"ip":["127.0.0.1"],"mac":"m"}})", nullptr},
        DeviceList{"DevicesAreANumber", R"({"devices":7})", nullptr},
        DeviceList{"DevicesAreAString", R"({"devices":"127.0.0.1"})", nullptr},
        DeviceList{"DevicesAreNull", R"({"devices":null})", nullptr},
        DeviceList{"DevicesAreTrue", R"({"devices":true})", nullptr},
        DeviceList{"DevicesAreMissing", R"({})", nullptr},
        DeviceList{
            "AddressesAreAnObjectANumberOrNull",
            R"({"devices":[{"ip":{"127.0.0.1":1},"mac":"a"},{"ip":127,"mac":"a"},)"
            R"({"ip":null,"mac":"a"},{"ip":true,"mac":"a"},{"ip":["127.0.0.1"],"mac":"m"}]})",
            "m"},
        DeviceList{"MacsAreAnArrayAnObjectOrNull",
                   R"({"devices":[{"ip":["127.0.0.1"],"mac":["a"]},{"ip":["127.0.0.1"],"mac":{}},)"
                   R"({"ip":["127.0.0.1"],"mac":null},{"ip":["127.0.0.1"],"mac":"m"}]})",
                   "m"},
        DeviceList{"RootIsAnArray", R"([{"ip":["127.0.0.1"],"mac":"m"}])", nullptr},
        DeviceList{"RootIsAScalar", "7", nullptr},
        DeviceList{"Utf8Mark", "\xef\xbb\xbf{\"devices\":[{\"ip\":[\"127.0.0.1\"],\"mac\":\"m\"}]}",
                   "m"}),
    [](const auto& suite) { return std::string(suite.param.name); });

TEST_F(MacLookup, AMissingFileIsAnInternalErrorWithItsCauseInTheLog) {
  RunHost(false);
  ExpectUnreadable(Get("/api/mac"), "Failed to lock file " + (directory_ / "devices.json") +
                                        ": 2 No such file or directory");
}

TEST_F(MacLookup, AFileOfOneMebibyteIsRead) {
  const std::string list = R"({"devices":[{"ip":["127.0.0.1"],"mac":"m"}]})";
  EXPECT_THAT(AnswerFor(list + std::string(1048576 - list.size(), ' ')), EndsWith("\r\n\r\nm"));
}

TEST_F(MacLookup, ALargerFileIsNot) {
  ExpectUnreadable(AnswerFor(std::string(1048577, ' ')),
                   "Failed to read file " + (directory_ / "devices.json") + ": 27 File too large");
}

TEST_F(MacLookup, AnEmptyFileIsBroken) {
  ExpectBroken(AnswerFor(""), "The document is empty., offset :0");
}

TEST_F(MacLookup, AFileOfBlanksIsEmptyAndOneThatBeginsWrongIsInvalid) {
  ExpectBroken(AnswerFor(" \n"), "The document is empty., offset :2");
  ExpectBroken(AnswerFor(" ]"), "Invalid value., offset :1");
}

TEST_F(MacLookup, TextBehindTheRootIsBroken) {
  ExpectBroken(AnswerFor("{} x"),
               "The document root must not be followed by other values., offset :3");
}

TEST_F(MacLookup, ANulWithinAStringIsBroken) {
  ExpectBroken(AnswerFor(std::string("{\"a\0b\":1}", 9)),
               "Missing a closing quotation mark in string., offset :3");
}

// As deep as there is memory for. A recursive parser's stack would be overflown.
constexpr size_t kDepth = 80000;

TEST_F(MacLookup, ManyBracketsDoNotOverflowTheStack) {
  ExpectBroken(AnswerFor(std::string(kDepth, '[')), "Invalid value., offset :80000");
}

TEST_F(MacLookup, ADeepButValidFileIsJustWithoutDevices) {
  ExpectRefusal(AnswerFor(std::string(kDepth, '[') + std::string(kDepth, ']')), kNotFound);
}

TEST_F(MacLookup, AMebibyteOfBracketsIsRefusedForItsMemory) {
  EXPECT_THAT(AnswerFor(std::string(1048576, '[')), StartsWith("HTTP/1.1 500 Internal error"));
  EXPECT_THAT(log_.Messages(), Contains(EndsWith("The device list takes too much memory")));
}

TEST_F(MacLookup, WaitsForAFileThatAnotherProcessHoldsForAMoment) {
  directory_.Write("devices.json", R"({"devices":[{"ip":["127.0.0.1"],"mac":"m"}]})");
  const int holder = ::open((directory_ / "devices.json").c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_EQ(::flock(holder, LOCK_EX), 0);
  RunHost(false);
  std::thread release([holder] {
    test::Pause(std::chrono::seconds(1));
    ::close(holder);
  });
  EXPECT_THAT(Get("/api/mac"), EndsWith("\r\n\r\nm"));
  release.join();
}

TEST_F(MacLookup, GivesUpOnAFileThatIsHeldForGood) {
  directory_.Write("devices.json", "{}");
  RunHost(false);
  const Fault pause("nanosleep", EINVAL);  // else some four seconds
  const int holder = ::open((directory_ / "devices.json").c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_EQ(::flock(holder, LOCK_EX), 0);
  ExpectUnreadable(Get("/api/mac"), "Failed to lock file " + (directory_ / "devices.json") +
                                        ": 11 Resource temporarily unavailable");
  ::close(holder);
}

TEST_F(MacLookup, GivesTheLockBack) {
  AnswerFor("{}");
  const int fd = ::open((directory_ / "devices.json").c_str(), O_RDWR | O_CLOEXEC);
  EXPECT_TRUE(test::WaitUntil([fd] { return ::flock(fd, LOCK_EX | LOCK_NB) == 0; }));
  ::close(fd);
}

// The parser of device lists against the library's default one, over many small texts.

template <typename Document>
std::string TextOf(const Document& doc) {
  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
  doc.Accept(writer);
  return {buffer.GetString(), buffer.GetSize()};
}

// A value, written anew, or an error.
struct Outcome {
  bool isValid;
  std::string text;

  friend bool operator==(const Outcome& left, const Outcome& right) {
    return left.isValid == right.isValid && left.text == right.text;
  }
  friend std::ostream& operator<<(std::ostream& out, const Outcome& outcome) {
    return out << (outcome.isValid ? "value " : "error ") << outcome.text;
  }
};

Outcome OutcomeOfLookup(const std::string& text) {
  tavlo::DeviceList doc;
  std::string error;
  const bool isValid = tavlo::ParseDeviceList(text, &doc, &error);
  return {isValid, isValid ? TextOf(doc) : error};
}

Outcome OutcomeOfDefault(const std::string& text) {
  rapidjson::Document doc;
  doc.Parse(text.data(), text.size());
  return doc.HasParseError()
             ? Outcome{false, std::string(GetParseError_En(doc.GetParseError())) +
                                  ", offset :" + std::to_string(doc.GetErrorOffset())}
             : Outcome{true, TextOf(doc)};
}

TEST(DeviceListParser, GivesTheValuesAndErrorsOfTheDefaultParser) {
  const std::vector<std::string> pieces = {"{",
                                           "}",
                                           "[",
                                           "]",
                                           ":",
                                           ",",
                                           " ",
                                           "\n",
                                           "\"a\"",
                                           "\"",
                                           "null",
                                           "true",
                                           "false",
                                           "nul",
                                           "0",
                                           "-1",
                                           "1.5e3",
                                           "01",
                                           "1e999",
                                           "-",
                                           "\\u0041",
                                           "\"\\u00e9\"",
                                           "\"\\ud800\"",
                                           "\"\\x\"",
                                           "\"\xff\"",
                                           "0.1234567890123456789",
                                           "NaN",
                                           "//\n",
                                           "/**/",
                                           "\xff",
                                           std::string(1, '\0'),
                                           "{\"ip\":[\"127.0.0.1\"],\"mac\":\"m\"}"};
  std::mt19937 random(20260131);
  size_t valid = 0;
  for (int i = 0; i < 200000; ++i) {
    std::string text;
    for (size_t length = random() % 12; length > 0; --length) {
      text += pieces[random() % pieces.size()];
    }
    const Outcome outcome = OutcomeOfLookup(text);
    ASSERT_EQ(outcome, OutcomeOfDefault(text)) << text;
    valid += outcome.isValid ? 1 : 0;
  }
  EXPECT_GT(valid, 1000U);
  for (const size_t depth : {1U, 10U, 1000U}) {
    for (const std::string& text :
         {std::string(depth, '['), std::string(depth, '[') + std::string(depth, ']'),
          std::string(depth, '[') + "x"}) {
      EXPECT_EQ(OutcomeOfLookup(text), OutcomeOfDefault(text));
    }
  }
}

}  // namespace
