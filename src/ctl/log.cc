#include <fstream>
#include <iostream>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include <getopt.h>
#include <sys/time.h>

#include "ctl/command.h"
#include "ctl/log_entry.h"
#include "ctl/log_reader.h"
#include "ctl/log_summary.h"
#include "ctl/message_table.h"

namespace tavlo::ctl {

namespace {

constexpr const char* kUsage =
    "Usage: tavloctl log [--since TIME] [--json] [--plot PICTURE] [FILE...]\n"
    "Tells what the daemon's log says: how many requests there were, how slow, how often wrong.\n"
    "  FILE            a log, plain or compressed by gzip; the oldest one first. Standard input\n"
    "                  without one, or for -\n"
    "  --since TIME    leave out what is older: \"2026-11-21 15:46\" (UTC), 90s, 30m, 12h or 7d\n"
    "  --json          print the answer for programs\n"
    "  --plot PICTURE  draw what happened over time into this file, in SVG\n"
    "Exit status: 0 all of it was read, 2 something could not be read or written.\n";

constexpr option kLongOptions[] = {
    {"help", no_argument, nullptr, 'h'},
    {"json", no_argument, nullptr, 'J'},
    {"plot", required_argument, nullptr, 'P'},
    {"since", required_argument, nullptr, 'S'},
    {nullptr, 0, nullptr, 0},
};

struct Options {
  int64_t since = std::numeric_limits<int64_t>::min();
  std::optional<std::string> picture;
  bool json = false;
  bool help = false;
  std::vector<std::string> files;
};

// In milliseconds. Not from the C++ library, whose times may have 32 bits, and end in 2038.
int64_t Now() {
  timeval now = {};
  ::gettimeofday(&now, nullptr);
  return int64_t{now.tv_sec} * 1000 + now.tv_usec / 1000;
}

bool TakeSince(const char* text, Options* options) {
  const auto since = ParseSince(text, Now());
  if (!since) {
    std::cerr << "tavloctl log: --since takes \"2026-11-21 15:46:20\", \"2026-11-21 15:46\", "
                 "2026-11-21, 90s, 30m, 12h or 7d\n";
    return false;
  }
  options->since = *since;
  return true;
}

// Nothing when the command line is wrong, which has been said then.
std::optional<Options> Parse(int argc, char** argv) {
  Options options;
  int letter = 0;
  while ((letter = ::getopt_long(argc, argv, "h", kLongOptions, nullptr)) != -1) {
    switch (letter) {
      case 'J':
        options.json = true;
        break;
      case 'P':
        options.picture = optarg;
        break;
      case 'S':
        if (!TakeSince(optarg, &options)) {
          return std::nullopt;
        }
        break;
      case 'h':
        options.help = true;
        break;
      default:  // getopt has said what is wrong
        return std::nullopt;
    }
  }
  options.files.assign(argv + optind, argv + argc);
  if (options.files.empty()) {
    options.files.emplace_back("-");
  }
  return options;
}

bool ReadAll(const std::vector<std::string>& files, LogSummary* summary) {
  bool isAll = true;
  for (const std::string& file : files) {
    std::string error;
    if (!ReadLines(
            file, [&](std::string_view line) { summary->Add(line); }, &error)) {
      std::cerr << "tavloctl log: Failed to read " << file << ": " << error << '\n';
      isAll = false;
    }
  }
  return isAll;
}

bool Draw(const LogReport& report, const std::string& path) {
  std::ofstream file(path);
  PrintPlot(report, file);
  file.close();
  if (!file) {
    std::cerr << "tavloctl log: Failed to write " << path << '\n';
  }
  return !file.fail();
}

int Run(int argc, char** argv) {
  const auto options = Parse(argc, argv);
  if (!options) {
    return kCouldNotLook;
  }
  if (options->help) {
    std::cout << kUsage;
    return kClean;
  }
  LogSummary summary(MessageTable::Built(), options->since);
  bool isDone = ReadAll(options->files, &summary);
  const LogReport report = summary.Report();
  if (options->json) {
    PrintJson(report, std::cout);
  } else {
    PrintText(report, std::cout);
  }
  if (options->picture) {
    isDone = Draw(report, *options->picture) && isDone;
  }
  return isDone ? kClean : kCouldNotLook;
}

}  // namespace

const Command kLog = {"log", "tell what the daemon's log says", kUsage, Run};

}  // namespace tavlo::ctl
