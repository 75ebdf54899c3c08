#include <iostream>
#include <optional>
#include <string>

#include <getopt.h>

#include "ctl/checks.h"
#include "ctl/command.h"

namespace tavlo::ctl {

namespace {

constexpr const char* kUsage =
    "Usage: tavloctl check [-c FILE] [-f LOG] [--connect] [--json]\n"
    "Finds what would keep the daemon from working, without starting it: as root, or as the user\n"
    "that the daemon runs as.\n"
    "  -c FILE    the configuration; without it the built-in settings\n"
    "  -f LOG     the log file that the daemon is given with -f\n"
    "  --connect  ask the SDK REST host, too, for at most three seconds\n"
    "  --json     print the findings for programs\n"
    "Exit status: 0 no findings, 1 findings, 2 something could not be looked at.\n";

constexpr option kLongOptions[] = {
    {"connect", no_argument, nullptr, 'C'},
    {"help", no_argument, nullptr, 'h'},
    {"json", no_argument, nullptr, 'J'},
    {nullptr, 0, nullptr, 0},
};

struct Options {
  std::string configPath;
  std::string logPath;
  bool connect = false;
  bool json = false;
  bool help = false;
};

// Nothing when the command line is wrong, which has been said then.
std::optional<Options> Parse(int argc, char** argv) {
  Options options;
  int letter = 0;
  while ((letter = ::getopt_long(argc, argv, "c:f:h", kLongOptions, nullptr)) != -1) {
    switch (letter) {
      case 'c':
        options.configPath = optarg;
        break;
      case 'f':
        options.logPath = optarg;
        break;
      case 'C':
        options.connect = true;
        break;
      case 'J':
        options.json = true;
        break;
      case 'h':
        options.help = true;
        break;
      default:  // getopt has said what is wrong
        return std::nullopt;
    }
  }
  if (optind < argc) {
    std::cerr << argv[0] << ": too many arguments\n";
    return std::nullopt;
  }
  return options;
}

void CheckAllBehindTheSettings(const CheckContext& context, const Options& options) {
  CheckUser(context);
  CheckTlsFiles(context);
  CheckRouterInformation(context);
  CheckDeviceList(context);
  CheckHooks(context);
  CheckBodyFile(context);
  CheckCrashRecords(context);
  CheckLogFile(context, options.logPath);
  CheckLanInterface(context);
  CheckPorts(context);
  if (options.connect) {
    CheckDestination(context);
  }
}

int RunCheck(int argc, char** argv) {
  const std::optional<Options> options = Parse(argc, argv);
  if (!options) {
    return kCouldNotLook;
  }
  if (options->help) {
    std::cout << kUsage;
    return kClean;
  }
  Findings findings;
  AppSettings settings;
  if (CheckSettings(options->configPath, &settings, &findings)) {
    const DaemonUser user(settings.AgentUser());
    CheckAllBehindTheSettings({settings, user, &findings}, *options);
  }
  if (options->json) {
    findings.PrintJson(std::cout);
  } else {
    findings.PrintText(std::cout);
  }
  return findings.ExitCode();
}

}  // namespace

const Command kCheck = {"check", "find what would not work, without starting the daemon", kUsage,
                        RunCheck};

}  // namespace tavlo::ctl
