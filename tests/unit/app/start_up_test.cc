#include "app/start_up.h"

#include <cerrno>
#include <fstream>
#include <new>
#include <sstream>
#include <utility>

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <sys/stat.h>
#include <unistd.h>

#include "app/daemon_fixture.h"
#include "util/crash_handler.h"

namespace {

using test::Fault;
using testing::Contains;
using testing::ElementsAre;

using StartUp = test::DaemonFixture;

// A signal mask of this process, as the kernel shows it.
unsigned long long SignalMask(const std::string& name) {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind(name + ":", 0) == 0) {
      return std::stoull(line.substr(name.size() + 1), nullptr, 16);
    }
  }
  return 0;
}

constexpr unsigned long long Bit(int signal) {
  return 1ULL << (signal - 1);
}

TEST_F(StartUp, BlocksItsThreeSignalsAndIgnoresSigpipe) {
  sigset_t other;
  sigemptyset(&other);
  sigaddset(&other, SIGUSR1);
  ::pthread_sigmask(SIG_BLOCK, &other, nullptr);
  const unsigned long long before = SignalMask("SigBlk");
  ASSERT_TRUE(Init(configPath_));
  EXPECT_EQ(SignalMask("SigBlk"), before | Bit(SIGHUP) | Bit(SIGINT) | Bit(SIGTERM));
  EXPECT_NE(SignalMask("SigIgn") & Bit(SIGPIPE), 0U);
  sigset_t& signals = tavlo::TheProcess().signals;
  EXPECT_TRUE(sigismember(&signals, SIGHUP) == 1 && sigismember(&signals, SIGINT) == 1 &&
              sigismember(&signals, SIGTERM) == 1 && sigismember(&signals, SIGUSR1) == 0);
}

TEST_F(StartUp, MakesBothHosts) {
  ASSERT_TRUE(Init(configPath_));
  EXPECT_NE(tavlo::TheProcess().httpHost, nullptr);
  EXPECT_NE(tavlo::TheProcess().httpsHost, nullptr);
  EXPECT_EQ(log_.Lines().front(), "DEBUG: bool Init: Enter");
  EXPECT_EQ(log_.Lines().back(), "DEBUG: bool Init: Leave");
}

TEST_F(StartUp, KeepsNoTextsOfOpensslsErrors) {
  ASSERT_TRUE(Init(configPath_));
  EXPECT_EQ(ERR_reason_error_string(ERR_PACK(ERR_LIB_X509, 0, X509_R_KEY_VALUES_MISMATCH)),
            nullptr);
  EXPECT_EQ(ERR_reason_error_string(ERR_PACK(ERR_LIB_SSL, 0, SSL_R_NO_SHARED_CIPHER)), nullptr);
}

TEST_F(StartUp, ASecondInitReplacesTheFirstOnesObjects) {
  ASSERT_TRUE(Init(configPath_));
  const tavlo::ProcessObjects& process = tavlo::TheProcess();
  const void* const settings = process.settings.get();
  const void* const hookInvoker = process.hookInvoker.get();
  const uint16_t httpPort = process.settings->AgentHttpPort();
  const uint16_t httpsPort = process.settings->AgentHttpsPort();
  ASSERT_TRUE(test::Connection("127.0.0.1", httpPort).IsOpen());
  sigfillset(&tavlo::TheProcess().signals);

  ASSERT_TRUE(Init(directory_.Write(
      "other.json", "{\"agentHttpPort\":" + std::to_string(test::FreePort()) +
                        ",\"agentHttpsPort\":" + std::to_string(test::FreePort()) + "}")));
  EXPECT_NE(process.settings.get(), settings);
  EXPECT_NE(process.hookInvoker.get(), hookInvoker);
  EXPECT_EQ(process.settings->LanInterface(), "br0") << "one value came from the first settings";
  EXPECT_FALSE(test::Connection("127.0.0.1", httpPort).IsOpen());
  EXPECT_FALSE(test::Connection("127.0.0.1", httpsPort).IsOpen());
  EXPECT_TRUE(test::Connection("127.0.0.1", process.settings->AgentHttpPort()).IsOpen());
  EXPECT_TRUE(test::Connection("127.0.0.1", process.settings->AgentHttpsPort()).IsOpen());
  EXPECT_EQ(sigismember(&process.signals, SIGUSR1), 0) << "the set was not emptied before";
}

TEST_F(StartUp, MakesThePlainHostFirst) {
  ASSERT_TRUE(Init(configPath_));
  const auto first = std::move(tavlo::TheProcess().httpHost);
  const auto second = std::move(tavlo::TheProcess().httpsHost);
  const std::string port = std::to_string(tavlo::TheProcess().settings->AgentHttpPort());
  EXPECT_FALSE(Init(configPath_));
  EXPECT_THAT(log_.Lines(), Contains("ERROR: bool Init: Failed to create AgentHost: Failed to bind "
                                     "endpoint '127.0.0.1:" +
                                     port + "' errno 98"));
}

TEST_F(StartUp, FailsWhenSignalsCannotBeBlocked) {
  const Fault fault("pthread_sigmask", EINVAL);
  EXPECT_FALSE(Init(configPath_));
  EXPECT_THAT(log_.Lines(), ElementsAre("DEBUG: bool Init: Enter",
                                        "ERROR: bool Init: pthread_sigmask failed as 22",
                                        "DEBUG: bool Init: Leave"));
}

TEST_F(StartUp, FailsWhenSigpipeCannotBeIgnored) {
  const Fault fault("signal", EINVAL);
  EXPECT_FALSE(Init(configPath_));
  EXPECT_THAT(log_.Messages(), ElementsAre("ERROR: bool Init: Failed to ignore SIGPIPE"));
}

TEST_F(StartUp, FailsWhenLibeventCannotBeSetUpForThreads) {
  const Fault fault("evthread_use_pthreads", EINVAL);
  EXPECT_FALSE(Init(configPath_));
  EXPECT_THAT(log_.Messages(), ElementsAre("ERROR: bool Init: Failed to configure evthreads"));
}

TEST_F(StartUp, TakesItsStepsInOrderAndNoneAfterAFailure) {
  const std::string missing = directory_ / "missing.json";
  const Fault host("evhttp_new", ENOMEM);
  {
    const Fault threads("evthread_use_pthreads", EINVAL);
    {
      const Fault sigpipe("signal", EINVAL);
      {
        const Fault mask("pthread_sigmask", EINVAL);
        EXPECT_FALSE(Init(missing));
        EXPECT_EQ(sigpipe.Calls(), 0);
      }
      EXPECT_FALSE(Init(missing));
      EXPECT_EQ(threads.Calls(), 0);
    }
    EXPECT_FALSE(Init(missing));
    EXPECT_EQ(tavlo::TheProcess().settings, nullptr);
  }
  EXPECT_FALSE(Init(missing));
  EXPECT_NE(tavlo::TheProcess().settings, nullptr);
  EXPECT_EQ(tavlo::TheProcess().hookInvoker, nullptr);
  EXPECT_EQ(host.Calls(), 0);
  EXPECT_THAT(log_.Messages(),
              ElementsAre("ERROR: bool Init: pthread_sigmask failed as 22",
                          "ERROR: bool Init: Failed to ignore SIGPIPE",
                          "ERROR: bool Init: Failed to configure evthreads",
                          "ERROR: virtual bool tavlo::AppSettings::LoadConfigFile: Failed to read "
                          "file " +
                              missing + ": 2 No such file or directory",
                          "ERROR: bool Init: Failed to read config file from: " + missing));
}

TEST_F(StartUp, FailsWithAConfigurationThatDoesNotParse) {
  const std::string path = directory_.Write("broken.json", "{");
  EXPECT_FALSE(Init(path));
  EXPECT_THAT(log_.Messages(),
              ElementsAre("ERROR: virtual bool tavlo::AppSettings::LoadConfigFile: Failed to parse "
                          "config file " +
                              path,
                          "ERROR: bool Init: Failed to read config file from: " + path));
}

TEST_F(StartUp, FailsWhenAHostCannotBeMade) {
  const Fault fault("evhttp_new", ENOMEM);
  EXPECT_FALSE(Init(configPath_));
  EXPECT_THAT(log_.Messages(), Contains("ERROR: bool Init: Failed to create AgentHost: Failed to "
                                        "init evhttp errno 12"));
}

TEST_F(StartUp, FailsWhenThereIsNoMemoryForAHost) {
  const std::string line = "ERROR: bool Init: Failed to create AgentHost: std::bad_alloc";
  // One allocation after the other; those before the hosts' are nobody's to catch.
  constexpr int kMoreThanThereAre = 1000;
  for (int before = 0; before < kMoreThanThereAre && !LogHas(line); ++before) {
    test::RunInChild([this, before] {
      try {
        const Fault fault("operator_new", ENOMEM, before, 1);
        Init(configPath_);
      } catch (const std::bad_alloc&) {
      }
    });
  }
  EXPECT_TRUE(LogHas(line));
}

TEST_F(StartUp, RecordsOfCrashesGoBelowTheRootPrefixBeforeThereIsAHost) {
  const std::string name = "tavlo-test-" + std::to_string(::getpid());
  ASSERT_EQ(::mkdir((directory_ / "tmp").c_str(), 0700), 0);
  test::RunInChild([&] {
    Mirel::RegisterCrashHandler(name);
    const Fault fault("evhttp_new", ENOMEM);
    if (!Init(configPath_)) {
      ::raise(SIGSEGV);
    }
  });
  EXPECT_THAT(test::ReadFile(directory_ / "tmp/" + name + "-backtrace.log"),
              testing::HasSubstr("Process exit due to signal: 11\n"));
}

TEST_F(StartUp, AnEmptyPathLeavesTheSettingsAndReadsNothing) {
  tavlo::AppSettings settings;
  EXPECT_TRUE(LoadAppSettings("", &settings));
  EXPECT_EQ(settings.AgentDstPort(), 60277);
  EXPECT_THAT(log_.Lines(), ElementsAre());
}

}  // namespace
