#include "agent/agent_host.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include "agent/client_table.h"
#include "agent/host_fixture.h"
#include "agent/limits.h"
#include "agent/listening_socket.h"
#include "support/error_text.h"
#include "support/faults.h"
#include "support/wait.h"
#include "util/descriptor.h"

namespace {

using test::Fault;
using AgentHostTest = test::HostFixture;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

TEST_F(AgentHostTest, KnowsTheNamesOfAllNineMethods) {
  const std::map<evhttp_cmd_type, std::string> expected = {
      {EVHTTP_REQ_GET, "GET"},     {EVHTTP_REQ_POST, "POST"},       {EVHTTP_REQ_HEAD, "HEAD"},
      {EVHTTP_REQ_PUT, "PUT"},     {EVHTTP_REQ_DELETE, "DELETE"},   {EVHTTP_REQ_OPTIONS, "OPTIONS"},
      {EVHTTP_REQ_TRACE, "TRACE"}, {EVHTTP_REQ_CONNECT, "CONNECT"}, {EVHTTP_REQ_PATCH, "PATCH"},
  };
  EXPECT_EQ((std::map<evhttp_cmd_type, std::string>(tavlo::kMethodNames.begin(),
                                                    tavlo::kMethodNames.end())),
            expected);
}

struct SetUpFailure {
  const char* function;
  int skip;
  bool secure;
  const char* message;

  friend std::ostream& operator<<(std::ostream& out, const SetUpFailure& failure) {
    return out << failure.function;
  }
};

class AgentHostSetUpFailure : public AgentHostTest,
                              public testing::WithParamInterface<SetUpFailure> {};

TEST_P(AgentHostSetUpFailure, IsThrownWithItsCause) {
  const Fault fault(GetParam().function, ENOMEM, GetParam().skip);
  std::string message = GetParam().message;
  const size_t port = message.find("PORT");
  if (port != std::string::npos) {
    message.replace(port, 4, std::to_string(port_));
  }
  EXPECT_EQ(FailureToMake(GetParam().secure), message);
}

INSTANTIATE_TEST_SUITE_P(
    All, AgentHostSetUpFailure,
    testing::Values(
        SetUpFailure{"event_base_new_with_config", 0, false, "Failed to init event_base errno 12"},
        SetUpFailure{"event_new", 0, false, "Failed to init invoker event errno 12"},
        SetUpFailure{"evhttp_new", 0, false, "Failed to init evhttp errno 12"},
        SetUpFailure{"evconnlistener_new", 0, false,
                     "Failed to bind endpoint '127.0.0.1:PORT' errno 12"},
        SetUpFailure{"evhttp_bind_listener", 0, false,
                     "Failed to bind endpoint '127.0.0.1:PORT' errno 12"},
        SetUpFailure{"evhttp_connection_base_new", 0, false, "Failed to init evcon errno 12"},
        SetUpFailure{"SSL_CTX_new", 0, true, "Cannot create SSL context"},
        SetUpFailure{"EC_KEY_new_by_curve_name", 0, true, "Cannot creates a new EC_KEY object"},
        SetUpFailure{"SSL_CTX_ctrl", 0, true, "Cannot set ECDH parameters"}),
    [](const auto& suite) { return std::string(suite.param.function); });

TEST_F(AgentHostTest, AnEventThatCannotBeMadeIsThrown) {
  // The first one is the invoker event; libevent makes some for itself.
  std::vector<std::string> failures;
  for (int skip = 1; skip < 20; ++skip) {
    const Fault fault("event_new", ENOMEM, skip, 1);
    failures.push_back(FailureToMake(false));
  }
  EXPECT_THAT(failures, Contains("Failed to init heartbeat errno 12"));
  EXPECT_THAT(failures, Contains("Failed to init client event errno 12"));
}

TEST_F(AgentHostTest, IsSetUpInItsOrder) {
  // Each of them fails, and so does the next one.
  const std::vector<std::pair<const char*, std::string>> steps = {
      {"event_base_new_with_config", "Failed to init event_base errno 12"},
      {"event_new", "Failed to init invoker event errno 12"},
      {"evhttp_new", "Failed to init evhttp errno 12"},
      {"evconnlistener_new",
       "Failed to bind endpoint '127.0.0.1:" + std::to_string(port_) + "' errno 12"},
      {"evhttp_connection_base_new", "Failed to init evcon errno 12"},
      {"SSL_CTX_new", "Cannot create SSL context"},
      {"EC_KEY_new_by_curve_name", "Cannot creates a new EC_KEY object"},
      {"SSL_CTX_ctrl", "Cannot set ECDH parameters"},
  };
  for (size_t i = 0; i + 1 < steps.size(); ++i) {
    const Fault fault(steps[i].first, ENOMEM);
    const Fault next(steps[i + 1].first, ENOMEM);
    EXPECT_EQ(FailureToMake(true), steps[i].second);
  }
}

TEST_F(AgentHostTest, IsSetUpForTlsBeforeItsHeartbeatIs) {
  int last = 0;  // of the events that are made for a host, the heartbeat's
  {
    const Fault events("event_new", 0, 0, 0);
    MakeHost(false).reset();
    last = events.Calls() - 1;
  }
  const Fault tls("SSL_CTX_new", ENOMEM);
  for (const bool secure : {false, true}) {
    const Fault heartbeat("event_new", ENOMEM, last);
    EXPECT_EQ(FailureToMake(secure),
              secure ? "Cannot create SSL context" : "Failed to init heartbeat errno 12");
  }
}

TEST_F(AgentHostTest, APortInUseIsThrown) {
  const auto first = MakeHost(false);
  EXPECT_EQ(FailureToMake(false), "Failed to bind endpoint '127.0.0.1:" + std::to_string(port_) +
                                      "' errno " + std::to_string(EADDRINUSE));
}

TEST_F(AgentHostTest, ADestroyedHostGivesItsPortBack) {
  MakeHost(true).reset();
  EXPECT_EQ(FailureToMake(true), "");
}

TEST_F(AgentHostTest, AnswersOnLoopbackWithoutAnyLanAddress) {
  RunHost(false);
  EXPECT_THAT(Get("/elsewhere"), StartsWith("HTTP/1.1 404 Invalid endpoint is called\r\n"));
}

TEST_F(AgentHostTest, ListensOnAFurtherAddressAtOnceAndOnTheOldOnesToo) {
  tavlo::AgentHost& host = RunHost(false);
  // An answer shows that the loop is running: the wake-up must reach it from this thread.
  EXPECT_THAT(Get("/elsewhere"), StartsWith("HTTP/1.1 404 "));

  host.BindSrcAddr("127.0.0.2");
  const std::string listening =
      "DEBUG: void tavlo::AgentHost::Invoke: Listen to endpoint '127.0.0.2:" +
      std::to_string(port_) + "'";
  ASSERT_TRUE(test::WaitUntil([&] { return LogHas(listening); }));
  host.BindSrcAddr("127.0.0.2");  // is ignored, or it would fail before the next one is bound
  host.BindSrcAddr("127.0.0.3");
  ASSERT_TRUE(test::WaitUntil([&] { return test::Connection("127.0.0.3", port_).IsOpen(); }));
  for (const char* address : {"127.0.0.1", "127.0.0.2", "127.0.0.3"}) {
    EXPECT_THAT(test::Exchange(address, port_, "GET /x HTTP/1.1\r\n\r\n"),
                StartsWith("HTTP/1.1 404 "))
        << address;
  }
  EXPECT_THAT(log_.Lines(),
              AllOf(Contains("DEBUG: void tavlo::AgentHost::BindSrcAddr: Enter addr=127.0.0.2"),
                    Contains("DEBUG: void tavlo::AgentHost::BindSrcAddr: Leave"),
                    Contains("DEBUG: void tavlo::AgentHost::Invoke: Enter"),
                    Contains("DEBUG: void tavlo::AgentHost::Invoke: Leave")));
  EXPECT_THAT(log_.Lines(), Not(Contains(StartsWith("ERROR: void tavlo::AgentHost::Invoke"))));
}

TEST_F(AgentHostTest, TakesAddressesWhileItTriesEarlierOnes) {
  tavlo::AgentHost& host = RunHost(false);
  EXPECT_THAT(Get("/elsewhere"), StartsWith("HTTP/1.1 404 "));
  for (int turn = 0; turn < 2000; ++turn) {
    host.BindSrcAddr("192.0.2.1");  // cannot be bound, and so is tried each time
  }
  host.BindSrcAddr("127.0.0.2");
  EXPECT_TRUE(test::WaitUntil([&] { return test::Connection("127.0.0.2", port_).IsOpen(); }));
  WaitForAccept();
}

TEST_F(AgentHostTest, PassesOverAnEmptyAddressAndOneThatIsBound) {
  const auto host = MakeHost(false);
  host->BindSrcAddr("");
  host->BindSrcAddr("127.0.0.1");
  EXPECT_THAT(log_.Lines(),
              ElementsAre("DEBUG: void tavlo::AgentHost::BindSrcAddr: Enter addr=",
                          "DEBUG: void tavlo::AgentHost::BindSrcAddr: Enter addr=127.0.0.1"));
}

TEST_F(AgentHostTest, BindsWhatCameBeforeItRanInOneGoAndInOrder) {
  static tavlo::AgentHost* const host = MakeHost(false).release();
  for (const char* address : {"127.0.0.9", "127.0.0.10", "127.0.0.9"}) {
    host->BindSrcAddr(address);
  }
  std::thread([] { host->Run(); }).detach();
  ASSERT_TRUE(
      test::WaitUntil([&] { return LogHas("DEBUG: void tavlo::AgentHost::Invoke: Leave"); }));
  const std::string end = ":" + std::to_string(port_) + "'";
  std::vector<std::string> lines = log_.Messages();
  lines.erase(lines.begin(), lines.begin() + 3);  // BindSrcAddr's
  EXPECT_THAT(lines, ElementsAre(EndsWith("Listen to endpoint '127.0.0.10" + end),
                                 EndsWith("Listen to endpoint '127.0.0.9" + end)));
}

TEST_F(AgentHostTest, AnAddressThatCannotBeBoundIsLoggedAndTriedAgainWhenItComesAgain) {
  tavlo::AgentHost& host = RunHost(false);
  const std::string failure =
      "ERROR: void tavlo::AgentHost::Invoke: Failed to bind endpoint '192.0.2.1:" +
      std::to_string(port_) + "' as errno " + std::to_string(EADDRNOTAVAIL);
  const auto failures = [&] {
    const auto lines = log_.Lines();
    return std::count(lines.begin(), lines.end(), failure);
  };
  host.BindSrcAddr("192.0.2.1");
  ASSERT_TRUE(test::WaitUntil([&] { return failures() == 1; }));
  host.BindSrcAddr("192.0.2.1");
  ASSERT_TRUE(test::WaitUntil([&] { return failures() == 2; }));
}

TEST_F(AgentHostTest, AnAddressThatCannotBeBoundHoldsUpNoOtherAndIsForgotten) {
  static tavlo::AgentHost* const host = MakeHost(false).release();
  const std::string end = ":" + std::to_string(port_) + "'";
  const std::string failure =
      "ERROR: void tavlo::AgentHost::Invoke: Failed to bind endpoint '10.0.0.999" + end +
      " as errno " + std::to_string(EINVAL);
  const std::string listening = "DEBUG: void tavlo::AgentHost::Invoke: Listen to endpoint '";
  // In one go, and the one that fails comes first.
  host->BindSrcAddr("127.0.0.2");
  host->BindSrcAddr("10.0.0.999");
  std::thread([] { host->Run(); }).detach();
  ASSERT_TRUE(test::WaitUntil([&] { return LogHas(listening + "127.0.0.2" + end); }));
  host->BindSrcAddr("127.0.0.3");
  ASSERT_TRUE(test::WaitUntil([&] { return LogHas(listening + "127.0.0.3" + end); }));
  const auto lines = log_.Lines();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), failure), 1);
}

// The destination works on one request while the answer to another is made.
TEST_F(AgentHostTest, TheNextRequestGoesOutBeforeAnAnswerIsMade) {
  const std::string reply = "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n";
  const stdext::descriptor listening(tavlo::OpenListeningSocket("127.0.0.1", dstPort_));
  std::vector<std::string> calls;  // on the loop's thread
  const test::Before forwards("evhttp_make_request", [&] { calls.emplace_back("forward"); });
  const test::Before answers("evhttp_send_reply", [&] { calls.emplace_back("answer"); });
  RunHost(false);
  std::thread first([&] { EXPECT_THAT(Get("/api/version"), StartsWith("HTTP/1.1 200 ")); });
  std::thread second([&] { EXPECT_THAT(Get("/api/version"), StartsWith("HTTP/1.1 200 ")); });
  EXPECT_TRUE(test::WaitUntil([&] {
    const auto lines = log_.Lines();
    return std::count(lines.begin(), lines.end(),
                      "INFO: void tavlo::AgentHost::DispatchRequest: GET /api/version") == 2;
  }));
  int accepted = -1;
  EXPECT_TRUE(test::WaitUntil([&] {
    accepted = ::accept4(listening.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    return accepted >= 0;
  }));
  const stdext::descriptor destination(accepted);
  for (int i = 0; i < 2; ++i) {
    char request[1024];
    EXPECT_TRUE(
        test::WaitUntil([&] { return ::recv(destination.get(), request, sizeof request, 0) > 0; }));
    EXPECT_GT(::send(destination.get(), reply.data(), reply.size(), 0), 0);
  }
  first.join();
  second.join();
  EXPECT_THAT(calls, ElementsAre("forward", "forward", "answer", "answer"));
}

// The main thread must never wait for what libevent does: for a bind, say, or until an answer is
// made.
class AgentHostLock : public AgentHostTest {
 protected:
  // Has another thread take the lock before each of libevent's or the kernel's calls of this name.
  // Where a call comes under the lock that thread has to wait until it is over.
  std::unique_ptr<test::Before> Watch(const char* function, tavlo::AgentHost* host) {
    return std::make_unique<test::Before>(function, [this, host] {
      const auto taken = std::make_shared<std::atomic<bool>>(false);
      std::thread([host, taken] {
        host->BindSrcAddr("127.0.0.1");  // is bound already
        *taken = true;
      }).detach();
      isFree_ = test::WaitUntil([&] { return taken->load(); }) && isFree_;
      ++calls_;
    });
  }

  std::atomic<bool> isFree_{true};
  std::atomic<int> calls_{0};
};

TEST_F(AgentHostLock, IsFreeWhileTheLoopIsWokenUp) {
  static tavlo::AgentHost* const host = MakeHost(false).release();
  const auto watch = Watch("event_active", host);
  host->BindSrcAddr("127.0.0.2");
  EXPECT_EQ(calls_, 1);
  EXPECT_TRUE(isFree_);
}

TEST_F(AgentHostLock, IsFreeWhileAnAddressIsBound) {
  tavlo::AgentHost& host = RunHost(false);
  const auto watch = Watch("bind", &host);
  host.BindSrcAddr("127.0.0.2");
  EXPECT_TRUE(
      test::WaitUntil([&] { return LogHas("DEBUG: void tavlo::AgentHost::Invoke: Leave"); }));
  EXPECT_EQ(calls_, 1);
  EXPECT_TRUE(isFree_);
}

TEST_F(AgentHostLock, IsFreeWhileARequestIsRefusedForItsKey) {
  tavlo::AgentHost& host = RunHost(true);
  {
    const auto watch = Watch("evbuffer_new", &host);  // for the page that tells of the error
    EXPECT_THAT(Get("/api/x"), StartsWith("HTTP/1.1 500 Pairing key is not configured\r\n"));
    host.SetPairingKey("key");
    EXPECT_THAT(Get("/api/x"), StartsWith("HTTP/1.1 417 Pairing key not as expected\r\n"));
  }
  EXPECT_GT(calls_, 0);
  EXPECT_TRUE(isFree_);
}

// ThreadSanitizer sees here what no answer would show: a key that is read while it changes.
TEST_F(AgentHostTest, TheKeyMayChangeWhileRequestsAreJudgedByIt) {
  tavlo::AgentHost& host = RunHost(true);
  host.SetPairingKey("key");
  std::atomic<bool> isOver{false};
  std::thread changing([&] {
    while (!isOver) {
      host.SetPairingKey("another key, too long to be kept in place");
      host.SetPairingKey("key");
    }
  });
  for (int i = 0; i < 50; ++i) {
    EXPECT_THAT(Get("/api/x"), StartsWith("HTTP/1.1 417 Pairing key not as expected\r\n"));
  }
  isOver = true;
  changing.join();
}

TEST_F(AgentHostTest, LogsAKeyOfThreeCharactersWholeAndALongerOneCut) {
  const auto host = MakeHost(true);
  for (const char* key : {"", "abc", "abcd", "a much longer key"}) {
    host->SetPairingKey(key);
  }
  EXPECT_THAT(log_.Lines(),
              ElementsAre("DEBUG: void tavlo::AgentHost::SetPairingKey: Updated: ''",
                          "DEBUG: void tavlo::AgentHost::SetPairingKey: Updated: 'abc'",
                          "DEBUG: void tavlo::AgentHost::SetPairingKey: Updated: 'abc...'",
                          "DEBUG: void tavlo::AgentHost::SetPairingKey: Updated: 'a m...'"));
}

TEST_F(AgentHostTest, ARequestWhoseHandlingThrowsIsAnsweredAndTheCauseLogged) {
  RunHost(false);
  const Fault fault("evhttp_request_get_uri", 0);
  const std::string answer = Get("/api/version");
  EXPECT_THAT(answer, StartsWith("HTTP/1.1 500 Internal error\r\n"));
  EXPECT_THAT(log_.Messages(),
              Contains(AllOf(StartsWith("ERROR: void tavlo::AgentHost::HandleRequest: "),
                             HasSubstr("Unexpected failure: basic_string"))));
}

TEST_F(AgentHostTest, EachRequestIsASignOfLife) {
  static std::atomic<int> beats(0);
  heartbeat_ = [] { ++beats; };
  RunHost(false);
  for (int requests = 1; requests < 4; ++requests) {
    Get("/elsewhere");
    EXPECT_TRUE(test::WaitUntil([&] { return beats == requests; }));
  }
}

// Moves the time on and lets the host look at it. What must not have happened yet is only looked at
// when this machine was quick enough.
class AgentHostTimes : public AgentHostTest {
 protected:
  using Clock = std::chrono::steady_clock;

  // Twice: what was due is done when the second turn comes.
  void Turn(tavlo::AgentHost& host) const {
    for (int turn = 0; turn < 2; ++turn) {
      const auto before = Turns();
      host.BindSrcAddr("192.0.2.1");  // cannot be bound, and so is tried each time
      ASSERT_TRUE(test::WaitUntil([&] { return Turns() > before; }));
    }
  }

  void TurnAt(Clock::time_point time, tavlo::AgentHost& host) const {
    test::PassTime(time - Clock::now());
    Turn(host);
  }

 private:
  std::ptrdiff_t Turns() const {
    const auto lines = log_.Lines();
    return std::count(lines.begin(), lines.end(), "DEBUG: void tavlo::AgentHost::Invoke: Leave");
  }
};

constexpr std::chrono::milliseconds kALittle(300);

TEST_F(AgentHostTimes, TheHeartbeatComesEvery30Seconds) {
  static std::atomic<int> beats(0);
  heartbeat_ = [] { ++beats; };
  const auto start = Clock::now();
  tavlo::AgentHost& host = RunHost(false);
  const auto made = Clock::now();
  for (int beat = 1; beat <= 3; ++beat) {
    const std::chrono::seconds due(30 * beat);
    TurnAt(made + due - kALittle, host);
    const int seen = beats;
    if (Clock::now() < start + due) {
      EXPECT_EQ(seen, beat - 1);
    }
    TurnAt(made + due + kALittle, host);
    EXPECT_TRUE(test::WaitUntil([&] { return beats == beat; }));
  }
}

TEST_F(AgentHostTimes, AHeartbeatThatIsDueComesWhenTheLoopStarts) {
  static std::atomic<int> beats(0);
  heartbeat_ = [] { ++beats; };
  static tavlo::AgentHost* const host = MakeHost(false).release();
  test::PassTime(std::chrono::seconds(30));
  EXPECT_EQ(beats, 0);
  std::thread([] { host->Run(); }).detach();
  Turn(*host);
  EXPECT_EQ(beats, 1);
}

TEST_F(AgentHostTimes, AHeartbeatThatIsNoFunctionIsAnError) {
  heartbeat_ = nullptr;
  tavlo::AgentHost& host = RunHost(false);
  TurnAt(Clock::now() + std::chrono::seconds(30) + kALittle, host);
  EXPECT_THAT(log_.Lines(), Contains("ERROR: static void tavlo::AgentHost::OnHeartbeatEvent: "
                                     "Unexpected failure: bad_function_call"));
}

TEST_F(AgentHostTimes, AClientThatIsSilentFor61SecondsIsEnded) {
  constexpr std::chrono::seconds kLimit(61);
  tavlo::AgentHost& host = RunHost(false);
  const auto start = Clock::now();
  const test::Connection client("127.0.0.1", port_);
  WaitForAccept();
  const auto accepted = Clock::now();
  TurnAt(accepted + kLimit - kALittle, host);
  const bool hasEnded = client.HasEnded();
  if (Clock::now() < start + kLimit) {
    EXPECT_FALSE(hasEnded);
  }
  TurnAt(accepted + kLimit + kALittle, host);
  EXPECT_TRUE(test::WaitUntil([&] { return client.HasEnded(); }));
}

TEST_F(AgentHostTimes, ADestinationThatIsSilentFor61SecondsIsGivenUp) {
  constexpr std::chrono::seconds kLimit(61);
  constexpr const char* kLine =
      "ERROR: void tavlo::AgentHost::RefuseForwarded: Timeout in forwarding request";
  const stdext::descriptor listening(tavlo::OpenListeningSocket("127.0.0.1", dstPort_));
  tavlo::AgentHost& host = RunHost(false);
  const auto start = Clock::now();
  std::string answer;
  std::thread client([&] { answer = Get("/api/version"); });
  // The time counts from when it has been sent.
  int accepted = -1;
  EXPECT_TRUE(test::WaitUntil([&] {
    accepted = ::accept4(listening.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    return accepted >= 0;
  }));
  const stdext::descriptor destination(accepted);
  char request[1024];
  EXPECT_TRUE(
      test::WaitUntil([&] { return ::recv(destination.get(), request, sizeof request, 0) > 0; }));
  Turn(host);
  const auto sent = Clock::now();
  TurnAt(sent + kLimit - kALittle, host);
  const bool hasEnded = LogHas(kLine);
  if (Clock::now() < start + kLimit) {
    EXPECT_FALSE(hasEnded);
  }
  TurnAt(sent + kLimit + kALittle, host);
  EXPECT_TRUE(LogHas(kLine));
  client.join();
  EXPECT_THAT(answer, StartsWith("HTTP/1.1 500 Timeout in forwarding request\r\n"));
}

TEST_F(AgentHostTest, AConnectionThatIsRefusedOnceIsAcceptedASecondLater) {
  RunHost(false);
  const Fault fault("accept4", EMFILE, 0, 1);
  EXPECT_THAT(Get("/elsewhere"), StartsWith("HTTP/1.1 404 "));
  EXPECT_THAT(
      log_.Lines(),
      Contains("ERROR: static void tavlo::ListeningSockets::PauseAccepting: Failed to accept a "
               "connection: 24 " +
               test::ErrorText(EMFILE)));
}

TEST_F(AgentHostTest, AListenerThatCannotBeTakenUpAgainIsAnError) {
  RunHost(false);
  const Fault refusal("accept4", EMFILE, 0, 1);
  const Fault fault("evconnlistener_enable", ENOMEM);
  const test::Connection client("127.0.0.1", port_);
  EXPECT_TRUE(test::WaitUntil([&] {
    return LogHas(
        "ERROR: static void tavlo::ListeningSockets::OnPauseEnd: "
        "Failed to accept connections again");
  }));
}

TEST_F(AgentHostTest, AListenerThatCannotRestIsNotLost) {
  RunHost(false);
  const Fault once("event_base_once", ENOMEM, 0, 1);
  const Fault fault("accept4", EMFILE, 0, 1);
  EXPECT_THAT(Get("/elsewhere"), StartsWith("HTTP/1.1 404 "));
  EXPECT_EQ(once.Calls(), 1);
}

TEST_F(AgentHostTest, ARequestThatCannotBeDelayedIsAnsweredAtOnce) {
  RunHost(true);
  const Fault once("event_base_once", ENOMEM, 0, 1);
  EXPECT_THAT(test::Exchange("127.0.0.1", port_,
                             "POST /api/x HTTP/1.1\r\nExpect: 100-continue\r\n"
                             "Content-Length: 4\r\n\r\nbody"),
              StartsWith("HTTP/1.1 500 Pairing key is not configured\r\n"));
  EXPECT_EQ(once.Calls(), 1);
}

class AgentHostForwardFailure : public AgentHostTest,
                                public testing::WithParamInterface<const char*> {};

TEST_P(AgentHostForwardFailure, IsAnsweredAndLogged) {
  RunHost(false);
  const test::Connection client("127.0.0.1", port_);
  WaitForAccept();
  const Fault fault(GetParam(), ENOMEM, 0, 1);
  EXPECT_THAT(client.Exchange("GET /api/version HTTP/1.1\r\n\r\n"),
              StartsWith("HTTP/1.1 500 Cannot forward the http request to the server\r\n"));
  EXPECT_THAT(log_.Lines(), Contains("ERROR: void tavlo::AgentHost::DispatchRequest: Failed in "
                                     "forwarding the http req to SDK REST host"));
}

INSTANTIATE_TEST_SUITE_P(All, AgentHostForwardFailure,
                         testing::Values("evhttp_request_new", "evhttp_make_request"),
                         [](const auto& suite) { return std::string(suite.param); });

// What is made in between would be lost where there is no memory.
TEST_F(AgentHostTest, ARequestThatIsMadeIsHandedOverBeforeAnythingElseIsAllocated) {
  RunHost(false);
  std::optional<Fault> allocations;
  int count = -1;
  const test::Before making("evhttp_request_new",
                            [&] { allocations.emplace("operator_new", 0, 0, 0); });  // counts
  const test::Before handingOver("evhttp_make_request", [&] { count = allocations->Calls(); });
  EXPECT_THAT(Get("/api/1/router-info"), StartsWith("HTTP/1.1 500 Destination request failed\r\n"));
  EXPECT_EQ(count, 0);
}

class AgentHostTlsFailure : public AgentHostTest,
                            public testing::WithParamInterface<const char*> {};

TEST_P(AgentHostTlsFailure, IsLoggedAndTheConnectionServedWithoutTls) {
  const std::string make =
      "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes "
      "-subj /CN=router -keyout " +
      (directory_ / "mirel.key") + " -out " + (directory_ / "mirel.crt") + " 2>/dev/null";
  // NOLINTNEXTLINE(cert-env33-c): a command of our own, without foreign input
  ASSERT_EQ(std::system(make.c_str()), 0);
  RunHost(true);
  const Fault fault(GetParam(), ENOMEM);
  EXPECT_THAT(Get("/elsewhere"), StartsWith("HTTP/1.1 404 "));
  EXPECT_THAT(log_.Lines(), Contains("ERROR: bufferevent* tavlo::AgentHost::SslConnect: Failed to "
                                     "create openssl socket"));
}

INSTANTIATE_TEST_SUITE_P(All, AgentHostTlsFailure,
                         testing::Values("SSL_new", "bufferevent_openssl_socket_new"),
                         [](const auto& suite) { return std::string(suite.param); });

TEST_F(AgentHostTest, AMacThatCannotBePutIntoABufferIsAnInternalErrorWithoutALogLine) {
  directory_.Write("devices.json", R"({"devices":[{"ip":["127.0.0.1"],"mac":"00:11"}]})");
  RunHost(false);
  const test::Connection client("127.0.0.1", port_);
  WaitForAccept();
  const Fault fault("evbuffer_new", ENOMEM, 0, 1);
  EXPECT_THAT(client.Exchange("GET /api/mac HTTP/1.1\r\n\r\n"),
              StartsWith("HTTP/1.1 500 Internal error\r\n"));
  EXPECT_THAT(log_.Messages(), Not(Contains(HasSubstr("ApiGetMac"))));
}

// The kernel refuses this address at once, so that libevent's reply callback runs within the call
// that starts the request.
TEST_F(AgentHostTest, ADestinationThatFailsAtOnceIsAnsweredOnce) {
  dstAddr_ = "255.255.255.255";
  RunHost(false);
  EXPECT_THAT(Get("/api/version"), StartsWith("HTTP/1.1 500 Timeout in forwarding request\r\n"));
  EXPECT_THAT(Get("/api/version"), StartsWith("HTTP/1.1 500 Timeout in forwarding request\r\n"));
}

TEST_F(AgentHostTest, ADestinationWhoseNameIsUnknownIsAnsweredOnce) {
  dstAddr_ = "destination.invalid";
  RunHost(false);
  const Fault names("getaddrinfo", 0);
  for (int requests = 0; requests < 2; ++requests) {
    const int before = names.Calls();
    EXPECT_THAT(Get("/api/version"), StartsWith("HTTP/1.1 500 Timeout in forwarding request\r\n"));
    EXPECT_GT(names.Calls(), before);
  }
}

TEST_F(AgentHostTest, ABodyOfMoreThanFourMebibytesIsRefusedByItsLength) {
  RunHost(false);
  const auto head = [](size_t length) {
    return "PATCH /api/1/router-ref HTTP/1.1\r\nContent-Length: " + std::to_string(length) +
           "\r\n\r\n";
  };
  constexpr size_t kMax = size_t{4} * 1024 * 1024;
  const std::string largest = head(kMax) + std::string(kMax, 'b');
  EXPECT_THAT(test::Exchange("127.0.0.1", port_, largest),
              StartsWith("HTTP/1.1 400 Request data too long\r\n"));
  EXPECT_THAT(test::Exchange("127.0.0.1", port_, head(kMax + 1)), StartsWith("HTTP/1.1 413 "));
}

TEST_F(AgentHostTest, TheLargestRequestFitsWithManyLinesToo) {
  RunHost(false);
  const std::string line = std::string(214, 'b') + "\n";
  constexpr size_t kLines = 19500;
  std::string request = "PATCH /api/1/router-ref HTTP/1.1\r\nContent-Length: " +
                        std::to_string(kLines * line.size()) +
                        "\r\nX: " + std::string(size_t{65000}, 'x') + "\r\n\r\n";
  for (size_t i = 0; i < kLines; ++i) {
    request += line;
  }
  EXPECT_THAT(test::Exchange("127.0.0.1", port_, request),
              StartsWith("HTTP/1.1 400 Request data too long\r\n"));
}

TEST_F(AgentHostTest, ForwardingsThatFailedAtOnceTakeNoPlaceInTheQueue) {
  RunHost(false);
  std::vector<std::unique_ptr<test::Connection>> clients;
  for (size_t i = 0; i <= tavlo::kMaxWaiting; ++i) {
    clients.push_back(std::make_unique<test::Connection>("127.0.0.1", port_));
  }
  WaitForAccept();
  const Fault fault("evhttp_make_request", ENOMEM);
  for (const auto& client : clients) {
    EXPECT_THAT(client->Exchange("GET /api/version HTTP/1.1\r\n\r\n"), StartsWith("HTTP/1.1 500 "));
  }
  EXPECT_THAT(log_.Lines(), Not(Contains(HasSubstr("Too many requests"))));
}

TEST_F(AgentHostTest, LibeventsWarningsLeaveTheErrorNumberToItsCallers) {
  tavlo::AgentHost& host = RunHost(false);
  Get("/elsewhere");
  const Fault clock("gettimeofday", EIO, 0, 1);  // fails the logger
  errno = 0;
  host.Run();  // the second time at once, which libevent refuses with a warning
  EXPECT_EQ(clock.Calls(), 2);
  EXPECT_THAT(log_.Lines().back(),
              StartsWith("ERROR: void tavlo::AgentHost::Run: The event loop has ended: 0 "));
}

int FlagOf(int fd, int level, int name) {
  int value = 0;
  socklen_t size = sizeof value;
  EXPECT_EQ(::getsockopt(fd, level, name, &value, &size), 0);
  return value;
}

TEST(ListeningSocket, IsWatchedPromptAndKeptFromPrograms) {
  const stdext::descriptor socket(tavlo::OpenListeningSocket("127.0.0.1", test::FreePort()));
  ASSERT_TRUE(socket.is_open());
  EXPECT_NE(FlagOf(socket.get(), SOL_SOCKET, SO_KEEPALIVE), 0);
  EXPECT_NE(FlagOf(socket.get(), SOL_SOCKET, SO_REUSEADDR), 0);
  EXPECT_NE(FlagOf(socket.get(), IPPROTO_TCP, TCP_NODELAY), 0);
  EXPECT_EQ(::fcntl(socket.get(), F_GETFD), FD_CLOEXEC);
  EXPECT_NE(::fcntl(socket.get(), F_GETFL) & O_NONBLOCK, 0);
}

TEST_F(AgentHostTest, LibeventsWarningsGoToTheDebugLog) {
  tavlo::AgentHost& host = RunHost(false);
  Get("/elsewhere");
  host.Run();  // the second time at once, which libevent refuses with a warning
  EXPECT_THAT(log_.Lines(),
              Contains(StartsWith("DEBUG: libevent: event_base_loop: reentrant invocation")));
}

}  // namespace
