#include "ctl/log_summary.h"

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using tavlo::ctl::LogReport;
using tavlo::ctl::LogSummary;
using tavlo::ctl::MessageTable;
using tavlo::ctl::ParseSince;
using testing::ElementsAre;
using testing::SizeIs;

constexpr const char* kPlain = "4d2.1";
constexpr const char* kTls = "4d2.2";
constexpr const char* kMain = "4d2.3";
constexpr const char* kDispatch = "void tavlo::AgentHost::DispatchRequest";
constexpr const char* kNotAllowed = "Endpoint is not allowed with insecure connection";

// A log in the making, a line each millisecond if not told otherwise.
class Log {
 public:
  explicit Log(int64_t since = std::numeric_limits<int64_t>::min())
      : summary_(MessageTable::Built(), since) {}

  Log& At(const std::string& time) {
    time_ = *ParseSince(time, 0);
    return *this;
  }
  Log& After(int64_t milliseconds) {
    time_ += milliseconds - 1;
    return *this;
  }
  Log& Line(const char* thread, const std::string& level, const std::string& function,
            const std::string& text) {
    const std::string milliseconds = std::to_string(1000 + ++time_ % 1000).substr(1);
    summary_.Add(tavlo::ctl::FormatTime(time_) + "." + milliseconds + " [" + thread + "] " + level +
                 ": " + function + ": " + text);
    return *this;
  }
  Log& Request(const char* thread, const std::string& text) {
    return Line(thread, "INFO", kDispatch, text);
  }
  Log& Debug(const char* thread, const std::string& text) {
    return Line(thread, "DEBUG", kDispatch, text);
  }
  Log& Error(const std::string& text, const char* function = kDispatch) {
    return Line(kPlain, "ERROR", function, text);
  }
  Log& Serves(const char* thread, const std::string& text) {
    return Line(thread, "DEBUG", "void tavlo::AgentHost::LogEndpoint", "Serves " + text);
  }
  Log& Answer(const char* thread, int status, int milliseconds) {
    return Line(thread, "DEBUG", "void tavlo::ClientTable::LogAnswer",
                "Answered " + std::to_string(status) + " to 127.0.0.1:4711: 312 bytes, " +
                    std::to_string(milliseconds) + " ms since its request");
  }
  Log& Script(int status, int milliseconds, const std::string& path) {
    return Line(kPlain, "DEBUG", "int Orx::SecureExec",
                "PID 71 ended with status " + std::to_string(status) + " after " +
                    std::to_string(milliseconds) + " ms: " + path);
  }
  Log& Clients(const char* thread, const std::string& text) {
    return Line(thread, "INFO", "void tavlo::ClientTable::Refuse", text);
  }
  Log& Start() { return Line(kMain, "INFO", "void Run", "tavlo started"); }
  Log& Other(const std::string& line) {
    summary_.Add(line);
    return *this;
  }

  LogReport Report() const { return summary_.Report(); }

 private:
  LogSummary summary_;
  int64_t time_ = *ParseSince("2026-11-21 15:46:20", 0);
};

std::vector<std::string> NamesOf(const std::vector<LogReport::Requests>& rows) {
  std::vector<std::string> names;
  names.reserve(rows.size());
  for (const LogReport::Requests& row : rows) {
    names.push_back(std::to_string(row.traffic.count) + " " + row.listener + " " + row.endpoint);
  }
  return names;
}

std::vector<std::string> ListenersOf(const Log& log) {
  return NamesOf(log.Report().listeners);
}

TEST(LogSummaryRequests, AreCountedByEndpoint) {
  Log log;
  log.Request(kPlain, "GET /api/version").Request(kPlain, "GET /api/version?x=1");
  log.Request(kPlain, "PATCH /api/version").Request(kPlain, "GET /other").Request(kPlain, "GET x");
  EXPECT_THAT(NamesOf(log.Report().endpoints),
              ElementsAre("2 4d2.1 GET /api/version", "2 4d2.1 outside /api/",
                          "1 4d2.1 PATCH /api/version"));
}

// 10,000 endpoints once each, and one that is asked for beside each of them, in one minute.
LogReport ReportOfScan() {
  Log log;
  for (int i = 0; i < 10000; ++i) {
    log.Request(kPlain, "GET /api/scan/" + std::to_string(i));
    log.Request(kPlain, "GET /api/version");
  }
  return log.Report();
}

TEST(LogSummaryRequests, OfManyEndpointsAreOther) {
  const LogReport report = ReportOfScan();
  EXPECT_LE(report.endpoints.size(), 1026U);
  EXPECT_EQ(report.RequestCount(), 20000U);
  uint64_t sum = 0;
  bool hasOther = false;
  for (const LogReport::Requests& row : report.endpoints) {
    sum += row.traffic.count;
    hasOther |= row.endpoint == "other";
    EXPECT_GT(row.traffic.count, 0U);
  }
  EXPECT_EQ(sum, 20000U);
  EXPECT_TRUE(hasOther);
  EXPECT_EQ(report.endpoints[0].endpoint, "GET /api/version");
  EXPECT_EQ(report.endpoints[0].traffic.count, 10000U);
}

TEST(LogSummaryRequests, HaveTheirBusiestMinuteBesideAScan) {
  const LogReport report = ReportOfScan();
  EXPECT_EQ(report.listeners[0].traffic.busiestMinute, 20000U);
  for (const LogReport::Requests& row : report.endpoints) {
    EXPECT_EQ(row.traffic.busiestMinute, row.endpoint == "other" ? 0U : row.traffic.count)
        << row.endpoint;
  }
}

TEST(LogSummaryRequests, OfLongOrStrangeEndpointsAreShownInPrint) {
  Log log;
  log.Request(kPlain, "GET /api/\x1b[31m\xff\\")
      .Request(kPlain, "GET /api/" + std::string(2000, 'a'));
  const LogReport report = log.Report();
  EXPECT_EQ(report.endpoints[0].endpoint, "GET /api/\\x1b[31m\\xff\\\\");
  EXPECT_EQ(report.endpoints[1].endpoint, "GET /api/" + std::string(191, 'a') + "...");
}

TEST(LogSummaryListeners, AreKnownByLinesOfTheirOwn) {
  EXPECT_THAT(ListenersOf(Log().Request(kPlain, "GET /api/x").Debug(kPlain, kNotAllowed)),
              ElementsAre("1 plain "));
  for (const char* text : {"Pairing key not as expected: 'x'", "Pairing key is not configured",
                           "Invalid character in the URI"}) {
    EXPECT_THAT(ListenersOf(Log().Request(kTls, "GET /api/x").Debug(kTls, text)),
                ElementsAre("1 TLS "))
        << text;
  }
  EXPECT_THAT(ListenersOf(Log()
                              .Line(kTls, "ERROR", "bool tavlo::AgentHost::LoadCertificate", "x")
                              .Request(kTls, "GET /api/x")),
              ElementsAre("1 TLS "));
}

TEST(LogSummaryListeners, AreKnownByTheirFirstLine) {
  EXPECT_THAT(
      ListenersOf(Log().Serves(kPlain, "127.0.0.1:80: plain HTTP").Request(kPlain, "GET /api/x")),
      ElementsAre("1 plain "));
  for (const char* text :
       {"127.0.0.1:443: TLS", "127.0.0.1:443: plain HTTP, for want of certificate and key"}) {
    EXPECT_THAT(ListenersOf(Log().Serves(kTls, text).Request(kTls, "GET /api/x")),
                ElementsAre("1 TLS "))
        << text;
  }
}

TEST(LogSummaryListeners, AreKnownByTheOtherOneOfTheirProcess) {
  Log log;
  log.Request(kTls, "GET /api/x").Request(kPlain, "GET /api/x").Debug(kPlain, kNotAllowed);
  EXPECT_THAT(ListenersOf(log), ElementsAre("1 plain ", "1 TLS "));
}

TEST(LogSummaryListeners, OfAnotherProcessOfTheSameNumberAreOthers) {
  Log log;
  log.Start().Request(kPlain, "GET /api/x").Debug(kPlain, kNotAllowed);
  log.Start().Request(kPlain, "GET /api/x");
  EXPECT_THAT(ListenersOf(log), ElementsAre("1 plain ", "1 4d2.1 "));
}

TEST(LogSummaryListeners, OfManyProcessesAreAddedUp) {
  Log log;
  for (int i = 0; i < 100; ++i) {
    log.Start().Request(kPlain, "GET /api/x").Debug(kPlain, kNotAllowed);
    log.Request(kTls, "GET /api/x").Answer(kTls, 200, 1);
  }
  log.Start().Request(kPlain, "GET /api/x").Start();
  EXPECT_THAT(ListenersOf(log), ElementsAre("1 unknown ", "100 plain ", "100 TLS "));
  EXPECT_THAT(NamesOf(log.Report().endpoints),
              ElementsAre("100 plain GET /api/x", "100 TLS GET /api/x", "1 unknown GET /api/x"));
  ASSERT_THAT(log.Report().answers, SizeIs(1));
  EXPECT_EQ(log.Report().answers[0].listener, "TLS");
  EXPECT_EQ(log.Report().answers[0].times.Count(), 100U);
}

TEST(LogSummaryListeners, ThatSpokeBeforeTheStartWasDoneBelongToIt) {
  Log log;
  log.Line(kMain, "DEBUG", "bool Init", "Enter").Serves(kPlain, "127.0.0.1:80: plain HTTP");
  log.Start().Request(kPlain, "GET /api/x").Request(kTls, "GET /api/y");
  EXPECT_THAT(ListenersOf(log), ElementsAre("1 plain ", "1 TLS "));
}

TEST(LogSummaryListeners, OfTooManyThreadsAreUnknown) {
  Log log;
  for (int i = 0; i < 100; ++i) {
    log.Request((std::to_string(i) + ".1").c_str(), "GET /api/x");
  }
  EXPECT_THAT(ListenersOf(log), ElementsAre("92 unknown ", "1 0.1 ", "1 1.1 ", "1 2.1 ", "1 3.1 ",
                                            "1 4.1 ", "1 5.1 ", "1 6.1 ", "1 7.1 "));
}

TEST(LogSummaryTimes, AreFromARequestToTheNextLineOfItsThread) {
  Log log;
  log.Debug(kMain, "x");
  log.Request(kPlain, "GET /api/a").Debug(kMain, "not this").After(300).Debug(kPlain, "this");
  log.After(5000).Debug(kPlain, "nor this");
  const LogReport report = log.Report();
  ASSERT_THAT(report.endpoints, SizeIs(1));
  EXPECT_EQ(report.endpoints[0].traffic.toNextLine.Count(), 1U);
  EXPECT_EQ(report.endpoints[0].traffic.toNextLine.Longest(), 301);
  EXPECT_EQ(report.listeners[0].traffic.toNextLine.Longest(), 301);
  EXPECT_EQ(report.timeline.Steps().begin()->second.slowest, 301);
}

TEST(LogSummaryTimes, AreNotMeasuredByLinesThatSayNothingOfTheRequest) {
  Log log;
  log.Debug(kMain, "x").Request(kPlain, "GET /api/a").Request(kPlain, "GET /api/b");
  log.Line(kPlain, "DEBUG", "void tavlo::AgentHost::Invoke", "Enter");
  log.Line(kPlain, "DEBUG", "void tavlo::ClientTable::TakeIn", "Accepted 127.0.0.1:4711");
  EXPECT_EQ(log.Report().listeners[0].traffic.toNextLine.Count(), 0U);
}

TEST(LogSummaryTimes, AreNotMeasuredWithoutDebugLines) {
  Log log;
  log.Request(kPlain, "GET /api/a").After(300).Clients(kPlain, "Answered 400 to whom");
  EXPECT_EQ(log.Report().listeners[0].traffic.toNextLine.Count(), 0U);
  EXPECT_FALSE(log.Report().hasDebug);
}

TEST(LogSummaryTimes, AreNotMeasuredWhenTheClockIsSetBack) {
  Log log;
  log.Debug(kMain, "x").Request(kPlain, "GET /api/a").After(-90000).Debug(kPlain, "this");
  EXPECT_EQ(log.Report().listeners[0].traffic.toNextLine.Count(), 0U);
}

TEST(LogSummaryTimes, AreThoseOfAnswersToo) {
  Log log;
  log.Answer(kPlain, 200, 40).Answer(kPlain, 200, 40).Answer(kPlain, 200, 40);
  log.Line(kPlain, "DEBUG", "void tavlo::ClientTable::LogAnswer",
           "Answered 417 to ::1:4711: 9 bytes, 1 ms since its request");
  const LogReport report = log.Report();
  ASSERT_THAT(report.answers, SizeIs(2));
  EXPECT_EQ(report.answers[0].status, 200);
  EXPECT_EQ(report.answers[0].times.Count(), 3U);
  EXPECT_EQ(report.answers[0].times.Longest(), 40);
  EXPECT_EQ(report.answers[1].status, 417);
}

TEST(LogSummaryTimes, OfAnswersBelongToTheRequestThatCameThen) {
  Log log;
  log.Debug(kMain, "x");
  log.Request(kPlain, "GET /api/slow").After(100).Request(kPlain, "GET /api/quick");
  log.After(40).Answer(kPlain, 200, 1000);  // of a request that is not in this log
  log.Answer(kPlain, 200, 41).After(59).Answer(kPlain, 200, 200);
  const LogReport report = log.Report();
  ASSERT_THAT(report.endpoints, SizeIs(2));
  EXPECT_EQ(report.endpoints[0].endpoint, "GET /api/quick");
  EXPECT_EQ(report.endpoints[0].traffic.toAnswer.Longest(), 41);
  EXPECT_EQ(report.endpoints[1].traffic.toAnswer.Longest(), 200);
  EXPECT_EQ(report.endpoints[0].traffic.toAnswer.Count(), 1U);
  EXPECT_EQ(report.endpoints[1].traffic.toAnswer.Count(), 1U);
  EXPECT_EQ(report.listeners[0].traffic.toAnswer.Count(), 2U);
}

TEST(LogSummaryTimes, OfAnswersAreKnownWhereARequestIsLoggedLate) {
  Log log;
  log.Debug(kMain, "x").Request(kPlain, "GET /api/a").After(300).Answer(kPlain, 200, 380);
  EXPECT_EQ(log.Report().endpoints.at(0).traffic.toAnswer.Longest(), 380);
}

TEST(LogSummaryRefusals, AreCountedByReason) {
  Log log;
  log.Debug(kPlain, kNotAllowed).Debug(kPlain, kNotAllowed);
  log.Error("Invalid endpoint is called: /x");
  const LogReport report = log.Report();
  ASSERT_THAT(report.refusals, SizeIs(2));
  EXPECT_EQ(report.refusals[0].reason, kNotAllowed);
  EXPECT_EQ(report.refusals[0].status, 417);
  EXPECT_EQ(report.refusals[0].when.count, 2U);
  EXPECT_EQ(report.refusals[1].reason, "Invalid endpoint is called");
  EXPECT_EQ(report.refusals[1].status, 404);
  EXPECT_EQ(report.timeline.Steps().begin()->second.refusals, 3U);
}

TEST(LogSummaryRefusals, OfLibeventCountOnce) {
  Log log;
  log.Clients(kPlain, "A request of 192.0.2.7 is refused: Two Content-Length");
  log.Clients(kPlain, "Answered 400 to a request of 192.0.2.7 that was not taken up");
  log.Clients(kPlain, "Answered 400 to a request of 192.0.2.7 that was not taken up");
  log.Clients(kPlain, "Answered 501 to a request of 192.0.2.7 that was not taken up");
  std::vector<std::string> reasons;
  for (const LogReport::Refusal& row : log.Report().refusals) {
    reasons.push_back(std::to_string(row.when.count) + " " + std::to_string(row.status) + " " +
                      row.reason);
  }
  EXPECT_THAT(reasons,
              ElementsAre("1 400 Two Content-Length", "1 400 A request that was not taken up",
                          "1 501 A request that was not taken up"));
}

TEST(LogSummaryRefusals, OfManyReasonsAreOther) {
  Log log;
  for (int i = 0; i < 1000; ++i) {
    log.Clients(kPlain, "A request of 192.0.2.7 is refused: " + std::to_string(i));
  }
  EXPECT_EQ(log.Report().refusals.size(), 257U);
  EXPECT_EQ(log.Report().refusals[0].reason, "other");
  EXPECT_EQ(log.Report().refusals[0].when.count, 744U);
}

TEST(LogSummaryWrongKeys, AreCountedAndToldApart) {
  Log log;
  for (const char* key : {"a", "b", "a"}) {
    log.Debug(kTls, std::string("Pairing key not as expected: '") + key + "'");
  }
  EXPECT_EQ(log.Report().wrongKeys.when.count, 3U);
  EXPECT_EQ(log.Report().wrongKeys.different, 2U);
  EXPECT_FALSE(log.Report().wrongKeys.areMore);
}

TEST(LogSummaryWrongKeys, AreToldApartUpToALimit) {
  Log log;
  for (int i = 0; i < 1100; ++i) {
    log.Debug(kTls, "Pairing key not as expected: '" + std::to_string(i) + "'");
  }
  EXPECT_EQ(log.Report().wrongKeys.different, 1000U);
  EXPECT_TRUE(log.Report().wrongKeys.areMore);
}

TEST(LogSummaryErrors, AreGroupedByTheirRows) {
  Log log;
  log.Error("Failed to lock file /a: 11 Resource temporarily unavailable");
  log.Error("Failed to lock file /b: 2 No such file or directory");
  log.Error("something new");
  const LogReport report = log.Report();
  ASSERT_THAT(report.errors, SizeIs(2));
  EXPECT_EQ(report.errors[0].message, "Failed to lock file %s: %s");
  EXPECT_EQ(report.errors[0].when.count, 2U);
  EXPECT_EQ(report.errors[0].example, "Failed to lock file /b: 2 No such file or directory");
  EXPECT_NE(report.errors[0].cause, "");
  EXPECT_NE(report.errors[0].cure, "");
  EXPECT_EQ(report.errors[1].message, "");
  EXPECT_EQ(report.errors[1].example, "something new");
  EXPECT_EQ(report.timeline.Steps().begin()->second.errors, 3U);
}

TEST(LogSummaryErrors, HaveTheCauseOfWhatTheyEndWith) {
  Log log;
  log.Line(kMain, "ERROR", "bool Init",
           "Failed to create AgentHost: Failed to bind endpoint '127.0.0.1:80' errno 98");
  const LogReport::Error error = log.Report().errors.at(0);
  EXPECT_EQ(error.message, "Failed to create AgentHost: %s");
  EXPECT_EQ(error.rest, "Failed to bind endpoint '%s:%s' errno %s");
  EXPECT_THAT(error.cause, testing::HasSubstr("is taken"));
}

TEST(LogSummaryEndedClients, AreAddedUp) {
  Log log;
  log.Clients(kPlain, "Ended 12 clients to make room, the last of 192.0.2.7: too many connections");
  log.Clients(kPlain, "Ended 3 clients to make room, the last of 192.0.2.8: too many connections");
  log.Clients(kPlain, "Ended 1 clients to make room, the last of 192.0.2.8: another reason");
  const LogReport report = log.Report();
  ASSERT_THAT(report.endedClients, SizeIs(2));
  EXPECT_EQ(report.endedClients[0].reason, "too many connections");
  EXPECT_EQ(report.endedClients[0].when.count, 15U);
  EXPECT_EQ(report.endedClients[0].lastAddress, "192.0.2.8");
}

TEST(LogSummaryScripts, HaveTheirRunsAndFailures) {
  Log log;
  constexpr const char* kCallHook = "bool tavlo::AgentHost::CallHook";
  const std::string failed = "Failed to invoke agent hook: failed to call script ";
  log.Script(0, 12, "/hooks/agent/10-audit").Script(3, 40, "/hooks/agent/10-audit");
  log.Error(failed + "'/hooks/agent/10-audit' as 3", kCallHook);
  log.Error(failed + "'/hooks/agent/20' as -1", kCallHook);
  const LogReport report = log.Report();
  ASSERT_THAT(report.scripts, SizeIs(2));
  EXPECT_EQ(report.scripts[0].path, "/hooks/agent/10-audit");
  EXPECT_EQ(report.scripts[0].times.Count(), 2U);
  EXPECT_EQ(report.scripts[0].times.Longest(), 40);
  EXPECT_EQ(report.scripts[0].failures.count, 1U);
  EXPECT_EQ(report.scripts[0].lastFailure, "status 3");
  EXPECT_EQ(report.scripts[1].path, "/hooks/agent/20");
  EXPECT_EQ(report.scripts[1].times.Count(), 0U);
  EXPECT_EQ(report.scripts[1].lastFailure, "status -1");
}

TEST(LogSummaryScripts, ThatCannotBeExecutedHaveFailed) {
  Log log;
  log.Error("Failed to execute /hooks/agent/10-audit: 13 Permission denied", "int Orx::SecureExec");
  const LogReport report = log.Report();
  ASSERT_THAT(report.scripts, SizeIs(1));
  EXPECT_EQ(report.scripts[0].path, "/hooks/agent/10-audit");
  EXPECT_EQ(report.scripts[0].failures.count, 1U);
  EXPECT_EQ(report.scripts[0].lastFailure, "13 Permission denied");
}

TEST(LogSummaryScripts, OfManyAreOther) {
  Log log;
  for (int i = 0; i < 1000; ++i) {
    log.Script(0, 1, "/" + std::to_string(i));
  }
  EXPECT_EQ(log.Report().scripts.size(), 257U);
}

TEST(LogSummarySince, LeavesOutWhatIsOlder) {
  Log log(*ParseSince("2026-11-21 16:00", 0));
  log.Other("before all").Start().Request(kPlain, "GET /api/old").Debug(kPlain, kNotAllowed);
  log.At("2026-11-21 16:00").Request(kPlain, "GET /api/new").Other("behind it");
  const LogReport report = log.Report();
  EXPECT_THAT(NamesOf(report.endpoints), ElementsAre("1 plain GET /api/new"));
  EXPECT_EQ(report.starts.count, 0U);
  EXPECT_THAT(report.refusals, SizeIs(0));
  EXPECT_EQ(report.lines, 1U);
  EXPECT_EQ(report.otherLines, 1U);
  EXPECT_EQ(report.period.count, 1U);
}

TEST(LogSummaryClock, ThatWasNotSetHasNoPlaceInThePeriod) {
  Log log;
  log.At("1970-01-01 00:00:07").Request(kPlain, "GET /api/a");
  log.At("2026-11-21 16:00").Request(kPlain, "GET /api/a");
  log.At("2026-11-21 16:10").Request(kPlain, "GET /api/a");
  const LogReport report = log.Report();
  EXPECT_EQ(report.RequestCount(), 3U);
  EXPECT_EQ(report.clockUnset, 1U);
  EXPECT_EQ(report.period.count, 2U);
  EXPECT_NEAR(report.Minutes(), 10, 0.01);
  EXPECT_EQ(report.timeline.MinutesInAStep(), 1);
}

TEST(LogSummaryClock, ThatIsSetBetweenTwoLinesTellsNoTime) {
  Log log;
  log.At("1970-01-01 00:00:07").Debug(kMain, "x").Request(kPlain, "GET /api/a");
  log.At("2026-11-21 16:00").Debug(kPlain, "x").Request(kPlain, "GET /api/a");
  log.Debug(kPlain, "x").Request(kPlain, "GET /api/a").After(86400000).Debug(kPlain, "x");
  const LogReport report = log.Report();
  EXPECT_EQ(report.listeners.at(0).traffic.count, 3U);
  EXPECT_EQ(report.listeners.at(0).traffic.toNextLine.Count(), 1U);
  EXPECT_EQ(report.listeners.at(0).traffic.toNextLine.Longest(), 1);
}

TEST(LogSummaryClock, ThatWasNotSetYetGoesOnWhereTheLogWas) {
  Log log(*ParseSince("2026-11-21 16:00", 0));
  log.At("1970-01-01 00:00:07").Request(kPlain, "GET /api/old");
  log.At("2026-11-21 15:00").Request(kPlain, "GET /api/old");
  log.At("1970-01-01 00:00:07").Request(kPlain, "GET /api/old");
  log.At("2026-11-21 16:00").Request(kPlain, "GET /api/new");
  log.At("1970-01-01 00:00:07").Request(kPlain, "GET /api/new");
  EXPECT_THAT(NamesOf(log.Report().endpoints), ElementsAre("2 4d2.1 GET /api/new"));
}

TEST(LogSummary, OfNothingIsEmpty) {
  const LogReport report = Log().Other("").Other("nonsense").Report();
  EXPECT_EQ(report.lines, 0U);
  EXPECT_EQ(report.otherLines, 2U);
  EXPECT_EQ(report.RequestCount(), 0U);
  EXPECT_EQ(report.Minutes(), 1);
}

}  // namespace
