#include <algorithm>
#include <cerrno>
#include <iostream>
#include <memory>
#include <optional>
#include <sstream>
#include <string>

#include <getopt.h>
#include <unistd.h>

#include "agent/limits.h"
#include "ctl/command.h"
#include "ctl/hook_events.h"
#include "ctl/hook_signals.h"
#include "ctl/printable.h"
#include "ctl/script_runs.h"
#include "ctl/text.h"
#include "hooks/body_file.h"
#include "settings/app_settings.h"
#include "util/error_text.h"
#include "util/file.h"
#include "util/log.h"
#include "util/privilege.h"

namespace tavlo::ctl {

namespace {

constexpr const char* kUsage =
    "Usage: tavloctl hook EVENT [--FLAG VALUE...] [-c FILE] [--quiet]\n"
    "Runs the scripts of an event as the daemon does, and shows what they did and what\n"
    "the daemon would make of it. Started by root, it becomes agentUser first.\n"
    "  agent            --method M --uri U, and --data FILE for a request's body\n"
    "  block_device     --action block|unblock --mac M, or --action reset\n"
    "  device_detected  --mac M\n"
    "  dns_block        --hostname H --mac M --reason R\n"
    "  http_block       --url U --mac M --reason R\n"
    "  iot_protection   --reason flow_counter --mac M --detail D\n"
    "  settings_update  --reason user_settings|device_list|profile_list|router_info\n"
    "  -c FILE          the configuration; without it the built-in settings\n"
    "  --quiet          print errors alone, on standard error, as the daemon logs them\n"
    "Exit status: 0 it goes on, 1 a script ended the request (200), 2 no script was run,\n"
    "for a wrong flag or value for one, 3 failed (500); 128 and the number of a signal\n"
    "(SIGHUP, SIGINT, SIGTERM) that came: the script that ran then has been killed.\n";

enum Verdict : int { kGoesOn = 0, kEnded = 1, kNotRun = 2, kFailed = 3 };

constexpr int kFlag = 'F';

constexpr option kLongOptions[] = {
    {"action", required_argument, nullptr, kFlag}, {"data", required_argument, nullptr, kFlag},
    {"detail", required_argument, nullptr, kFlag}, {"hostname", required_argument, nullptr, kFlag},
    {"mac", required_argument, nullptr, kFlag},    {"method", required_argument, nullptr, kFlag},
    {"reason", required_argument, nullptr, kFlag}, {"uri", required_argument, nullptr, kFlag},
    {"url", required_argument, nullptr, kFlag},    {"help", no_argument, nullptr, 'h'},
    {"quiet", no_argument, nullptr, 'q'},          {nullptr, 0, nullptr, 0},
};

struct Options {
  const HookEvent* event = nullptr;
  FlagValues values;
  std::string configPath;
  bool quiet = false;
  bool help = false;
};

int NotRun(const std::string& reason) {
  std::cerr << "tavloctl hook: " << reason << '\n';
  return kNotRun;
}

// Whether event and flags belong together; says what does not.
bool IsConsistent(const Options& options) {
  if (options.event == nullptr) {
    NotRun("one event is to be named; see tavloctl hook --help");
    return false;
  }
  const auto& flags = options.event->flags;
  for (const auto& [flag, value] : options.values) {
    if (std::find(flags.begin(), flags.end(), flag) == flags.end()) {
      NotRun(std::string(options.event->name) + " has no flag --" + flag);
      return false;
    }
  }
  return true;
}

// Nothing when the command line is wrong, which has been said then.
std::optional<Options> Parse(int argc, char** argv) {
  Options options;
  int index = 0;
  int letter = 0;
  while ((letter = ::getopt_long(argc, argv, "c:h", kLongOptions, &index)) != -1) {
    switch (letter) {
      case kFlag:
        options.values[kLongOptions[index].name] = optarg;
        break;
      case 'c':
        options.configPath = optarg;
        break;
      case 'q':
        options.quiet = true;
        break;
      case 'h':
        options.help = true;
        return options;
      default:  // getopt has said what is wrong
        return std::nullopt;
    }
  }
  if (optind + 1 == argc) {
    options.event = FindHookEvent(argv[optind]);
  }
  return IsConsistent(options) ? std::optional<Options>(options) : std::nullopt;
}

// All that is logged goes here instead of to standard error, for as long as this lives.
class CapturedLog {
 public:
  CapturedLog() : console_(std::clog.rdbuf(&lines_)) {}
  ~CapturedLog() { std::clog.rdbuf(console_); }
  CapturedLog(const CapturedLog&) = delete;
  CapturedLog& operator=(const CapturedLog&) = delete;

  ScriptRuns Read() const { return ReadScriptRuns(lines_.str()); }

 private:
  std::stringbuf lines_;
  std::streambuf* const console_;
};

void PrintRemarks(std::ostream& out, const std::vector<std::string>& remarks) {
  for (const std::string& remark : remarks) {
    out << "    " << ForTerminal(remark) << '\n';
  }
}

// As the daemon does. Others than root cannot, and scripts may do for them what they may not do for
// the daemon, or the other way round.
bool BecomeUser(const std::string& user, bool quiet) {
  if (user.empty()) {
    return true;
  }
  const Orx::Status status = stdext::drop_privilege(user);
  if (!status.IsOk() && ::geteuid() == 0) {
    NotRun("cannot become agentUser '" + user + "': " + status.Message());
    return false;
  }
  if (!status.IsOk() && !quiet) {
    std::cout << "note: runs as who started it, not as agentUser '" << user << "'\n";
  }
  return true;
}

struct Outcome {
  Verdict verdict;
  std::string text;
};

Outcome Judge(const HookEvent& event, const Orx::Status& status, int exitCode) {
  if (!status.IsOk()) {
    const char* const what =
        event.isRequest ? R"(failed: the client gets 500 "Internal error": )" : "failed: ";
    return {kFailed, what + status.Message()};
  }
  if (exitCode != 0) {
    return {kEnded, R"(ended: the client gets 200 "OK", nothing is forwarded)"};
  }
  return {kGoesOn, event.isRequest ? "goes on: the request is forwarded" : "goes on"};
}

// An answer of 1 that does not count is that of an internal script, where there is an external
// directory.
bool HasOverruled(const HookEvent& event, const ScriptRuns& found, Verdict verdict) {
  return event.isRequest && verdict == kGoesOn &&
         std::any_of(found.runs.begin(), found.runs.end(),
                     [](const ScriptRun& run) { return run.status == 1; });
}

void Print(const HookEvent& event, const ScriptRuns& found, const Outcome& outcome) {
  for (const ScriptRun& run : found.runs) {
    std::cout << ForTerminal(run.path) << ": status " << run.status << ", " << run.milliseconds
              << " ms\n";
    PrintRemarks(std::cout, run.remarks);
  }
  PrintRemarks(std::cout, found.remarks);
  if (found.runs.empty()) {
    std::cout << "no script was run\n";
  }
  std::cout << ForTerminal(outcome.text) << '\n';
  if (HasOverruled(event, found, outcome.verdict)) {
    std::cout << "    the 1 of an internal script does not count: there is an external directory\n";
  }
}

// Raises the event with what has been made ready for it.
int Raise(Options* options, const AppSettings& settings, const CapturedLog* log) {
  Orx::HookInvoker hooks(settings.InternalHooksDirectory(), settings.ExternalHooksDirectory());
  const HookEvent& event = *options->event;
  int exitCode = 0;
  const Orx::Status status = event.raise(hooks, options->values, &exitCode);
  // What is wrong with the values themselves is found before any script is run.
  if (!status.IsOk() && !BeginsWith(status.Message(), "failed to ")) {
    return NotRun(status.Message());
  }
  const Outcome outcome = Judge(event, status, exitCode);
  if (log != nullptr) {
    Print(event, log->Read(), outcome);
  }
  return outcome.verdict;
}

// The file is not the daemon's own: one that runs beside this would show its scripts the wrong
// body.
std::string BodyPath(const AppSettings& settings) {
  return settings.AgentDataPath() + ".tavloctl-" + std::to_string(::getpid());
}

int RaiseRequest(Options* options, const AppSettings& settings, const std::string& body,
                 const CapturedLog* log) {
  std::string& data = options->values["data"];
  if (body.empty()) {
    data.clear();
    return Raise(options, settings, log);
  }
  data = BodyPath(settings);
  Orx::BodyFile file(data);
  if (!file.Write(body)) {
    return NotRun("cannot write " + data + ": " + stdext::error_number_and_text(errno));
  }
  return Raise(options, settings, log);
}

// Says what is wrong with it.
bool ReadSettings(const std::string& path, const CapturedLog* log, AppSettings* settings) {
  if (path.empty() || settings->LoadConfigFile(path, nullptr)) {
    return true;
  }
  if (log != nullptr) {
    PrintRemarks(std::cerr, log->Read().remarks);
  }
  NotRun("cannot use " + path);
  return false;
}

// Says what is wrong with it.
bool ReadBody(const std::string& path, std::string* body) {
  if (path.empty()) {
    return true;
  }
  const Orx::Status status = stdext::file::without_lock(path).read(kMaxRequestBody, body);
  if (!status.IsOk()) {
    NotRun(status.Message() + "; a body may have " + std::to_string(kMaxRequestBody) + " bytes");
  }
  return status.IsOk();
}

// `log` is null with --quiet.
int Try(Options* options, const sigset_t& signals, const CapturedLog* log) {
  AppSettings settings;
  std::string body;
  if (!ReadSettings(options->configPath, log, &settings) ||
      !ReadBody(options->values["data"], &body)) {
    return kNotRun;
  }
  const bool isRequest = options->event->isRequest;
  if (isRequest && settings.AgentDataPath().empty()) {
    return NotRun("agentDataPath is empty: the daemon shows no request to scripts");
  }
  // What stands before this may need the rights of who started it.
  if (!BecomeUser(settings.AgentUser(), options->quiet)) {
    return kNotRun;
  }
  EndOnSignal(signals, isRequest ? BodyPath(settings) : std::string());
  return isRequest ? RaiseRequest(options, settings, body, log) : Raise(options, settings, log);
}

int RunHook(int argc, char** argv) {
  std::optional<Options> options = Parse(argc, argv);
  if (!options) {
    return kNotRun;
  }
  if (options->help) {
    std::cout << kUsage;
    return kGoesOn;
  }
  const sigset_t signals = BlockSignals();
  const int level = options->quiet ? Orx::Log::kError : Orx::Log::kDebug;
  Orx::Log::Open("tavloctl", "", level, true, false, false);
  const std::unique_ptr<CapturedLog> log(options->quiet ? nullptr : new CapturedLog);
  return Try(&*options, signals, log.get());
}

}  // namespace

const Command kHook = {"hook", "run the scripts of an event as the daemon does", kUsage, RunHook};

}  // namespace tavlo::ctl
