#include "ctl/log_entry.h"

#include <optional>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using tavlo::ctl::FormatTime;
using tavlo::ctl::ParseLogEntry;
using tavlo::ctl::ParseSince;

constexpr const char* kLine =
    "2026-11-21 15:46:20.766 [6fbb.7fce2271e6c0] INFO: void tavlo::AgentHost::DispatchRequest: "
    "POST /api/1/fail: now";

TEST(LogEntry, HasThePartsOfALine) {
  const auto entry = ParseLogEntry(kLine);
  ASSERT_TRUE(entry);
  EXPECT_EQ(entry->time, 1795275980766);
  EXPECT_EQ(entry->process, "6fbb");
  EXPECT_EQ(entry->thread, "6fbb.7fce2271e6c0");
  EXPECT_EQ(entry->level, 6);
  EXPECT_EQ(entry->function, "void tavlo::AgentHost::DispatchRequest");
  EXPECT_EQ(entry->text, "POST /api/1/fail: now");
}

TEST(LogEntry, KnowsAllLevels) {
  const std::string start = "2026-11-21 15:46:20.766 [1.2] ";
  EXPECT_EQ(ParseLogEntry(start + "ERROR: f: x")->level, 3);
  EXPECT_EQ(ParseLogEntry(start + "DEBUG: f: x")->level, 7);
  EXPECT_FALSE(ParseLogEntry(start + "NOTICE: f: x"));
}

TEST(LogEntry, MayHaveWordsOfASystemLogBeforeIt) {
  for (const char* words : {"Nov 21 15:46:20 router tavlo[28603]: ",
                            "Sat Nov 21 15:46:20 2026 user.info tavlo[28603]: ",
                            "2026-11-21T15:46:20.766431+00:00 router tavlo[28603]: "}) {
    const std::string line = std::string(words) + kLine;
    const auto entry = ParseLogEntry(line);
    ASSERT_TRUE(entry) << words;
    EXPECT_EQ(entry->text, "POST /api/1/fail: now");
  }
}

TEST(LogEntry, IsNothingElse) {
  for (const char* line :
       {"", "x", "2026-11-21 15:46:20.766", "2026-11-21 15:46:20.766 [6fbb] INFO: f: x",
        "2026-11-21 15:46:20.766 [6fbb.] INFO: f: x", "2026-11-21 15:46:20.766 [.1] INFO: f: x",
        "2026-11-21 15:46:20.766 [6FBB.1] INFO: f: x", "2026-13-21 15:46:20.766 [1.1] INFO: f: x",
        "2026-00-21 15:46:20.766 [1.1] INFO: f: x", "2026-11-00 15:46:20.766 [1.1] INFO: f: x",
        "2026-11-21 24:46:20.766 [1.1] INFO: f: x", "2026-11-21 15:46:20,766 [1.1] INFO: f: x",
        "2026-11-21 15:46:20.76 [1.1] INFO: f: x", "(2026-11-21 15:46:20) Process exit due to",
        "2026-11-21 15:46:20.766 [11111111111111111.1] INFO: f: x",
        "router tavlo[28603]: ", "router other[28603]: 2026-11-21 15:46:20.766 [1.1] INFO: f: x"}) {
    EXPECT_FALSE(ParseLogEntry(line)) << line;
  }
}

TEST(LogEntry, MayHaveNoFunctionAndNoText) {
  const auto entry = ParseLogEntry("2026-11-21 15:46:20.766 [1.2] INFO: ");
  ASSERT_TRUE(entry);
  EXPECT_EQ(entry->function, "");
  EXPECT_EQ(entry->text, "");
}

TEST(LogEntry, IsARequestOnlyByItsFunctionAndLevel) {
  EXPECT_TRUE(ParseLogEntry(kLine)->IsRequest());
  const std::string start = "2026-11-21 15:46:20.766 [1.2] ";
  EXPECT_FALSE(
      ParseLogEntry(start + "DEBUG: void tavlo::AgentHost::DispatchRequest: x")->IsRequest());
  EXPECT_FALSE(ParseLogEntry(start + "INFO: void Run: AgentHost::DispatchRequest")->IsRequest());
}

TEST(LogTime, IsTheSameThereAndBack) {
  for (const char* text : {"1970-01-01 00:00:00", "1999-12-31 23:59:59", "2000-02-29 00:00:00",
                           "2000-03-01 12:00:00", "2024-02-29 23:00:01", "2026-11-21 15:46:20",
                           "2100-03-01 00:00:00", "1969-12-31 23:59:59"}) {
    const auto time = ParseSince(text, 0);
    ASSERT_TRUE(time) << text;
    EXPECT_EQ(FormatTime(*time), text);
  }
}

TEST(Since, IsAMomentOfAnyPrecision) {
  EXPECT_EQ(FormatTime(*ParseSince("2026-11-21", 0)), "2026-11-21 00:00:00");
  EXPECT_EQ(FormatTime(*ParseSince("2026-11-21 15:46", 0)), "2026-11-21 15:46:00");
}

TEST(Since, IsADurationBeforeNow) {
  constexpr int64_t kNow = 1795275980000;
  EXPECT_EQ(ParseSince("90s", kNow), kNow - 90000);
  EXPECT_EQ(ParseSince("30m", kNow), kNow - int64_t{30} * 60000);
  EXPECT_EQ(ParseSince("12h", kNow), kNow - int64_t{12} * 3600000);
  EXPECT_EQ(ParseSince("7d", kNow), kNow - int64_t{7} * 86400000);
}

TEST(Since, IsNothingElse) {
  for (const char* text : {"", "d", "7", "7w", "-7d", "7 d", "7.5d", "1234567d", "2026", "2026-11",
                           "2026-11-21 ", "2026-11-21 15", "2026-11-21 15:4", "2026-11-21T15:46",
                           "2026-11-21 15:46:20.7", "2026-11-21 15:46:20 ", "yesterday"}) {
    EXPECT_EQ(ParseSince(text, 0), std::nullopt) << text;
  }
}

}  // namespace
