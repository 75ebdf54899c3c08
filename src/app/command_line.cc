#include "app/command_line.h"

#include <iostream>

#include <getopt.h>

namespace tavlo {

namespace {

constexpr const char* kShortOptions = "dc:p:sf:h";

constexpr option kLongOptions[] = {
    {"print-config-value", required_argument, nullptr, 'p'},
    {nullptr, 0, nullptr, 0},
};

constexpr const char* kUsage =
    "Usage: tavlo [-d] [-s] [-f path] [-c path]\n"
    "-d Enable debug logging (LOG_INFO by default)\n"
    "-s Enable logging to syslog\n"
    "-f <path> Log to file specified in <path>\n"
    "-c <path> Load configuration from <path>\n"
    "-p <key> | --print-config-value <key> Print value of configuration key <key>\n";

}  // namespace

std::optional<Options> ParseCommandLine(int argc, char** argv) {
  Options options;
  for (int letter = 0; letter != -1;) {
    letter = ::getopt_long(argc, argv, kShortOptions, kLongOptions, nullptr);
    switch (letter) {
      case -1:
        break;
      case 'd':
        options.debug = true;
        break;
      case 's':
        options.sysLog = true;
        break;
      case 'f':
        options.logPath = optarg;
        break;
      case 'c':
        options.configPath = optarg;
        break;
      case 'p':
        options.printKey = optarg;
        break;
      case 'h':
        std::cout << kUsage;
        return std::nullopt;
      case '?':  // getopt has said what is wrong
        return std::nullopt;
      default:
        std::clog << "Unknown return value from getopt\n";
        return std::nullopt;
    }
  }
  if (optind < argc) {
    std::clog << "Too many arguments, no positional parameters expected\n";
    return std::nullopt;
  }
  return options;
}

}  // namespace tavlo
