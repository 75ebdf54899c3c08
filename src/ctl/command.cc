#include "ctl/command.h"

#include <cstdio>
#include <iostream>
#include <string>
#include <vector>

#include "ctl/build_id.h"

namespace tavlo::ctl {

namespace {

constexpr const Command* kCommands[] = {
    &kCheck,
    &kHook,
    &kLog,
};

constexpr size_t kSummaryColumn = 8;

void PrintHelp(std::ostream& out) {
  out << "Usage: tavloctl COMMAND [ARGUMENT...]\n"
         "       tavloctl COMMAND --help\n"
         "       tavloctl --help | --version\n"
         "\n"
         "Commands:\n";
  for (const Command* command : kCommands) {
    std::string name = command->name;
    name.resize(kSummaryColumn, ' ');
    out << "  " << name << command->summary << '\n';
  }
  out << "\n"
         "Exit status: 0 all is well, 1 something was found, 2 it could not look; a\n"
         "command's own help says what that means, and what else there is.\n";
}

int PrintVersion() {
  std::cout << "tavloctl " TAVLO_VERSION "\nBuild ID: " << OwnBuildId() << '\n';
  return kClean;
}

// `arguments` are those behind the command's name.
int Run(const Command& command, const std::vector<char*>& arguments) {
  if (!arguments.empty() && arguments.front() == std::string("--help")) {
    std::cout << command.usage;
    return kClean;
  }
  std::string program = std::string("tavloctl ") + command.name;
  std::vector<char*> argv = {program.data()};
  argv.insert(argv.end(), arguments.begin(), arguments.end());
  argv.push_back(nullptr);
  return command.run(static_cast<int>(argv.size()) - 1, argv.data());
}

int Dispatch(const std::vector<char*>& arguments) {
  if (arguments.empty()) {
    PrintHelp(std::cerr);
    return kCouldNotLook;
  }
  const std::string name = arguments.front();
  if (name == "--help" || name == "-h") {
    PrintHelp(std::cout);
    return kClean;
  }
  if (name == "--version") {
    return PrintVersion();
  }
  for (const Command* command : kCommands) {
    if (name == command->name) {
      return Run(*command, {arguments.begin() + 1, arguments.end()});
    }
  }
  std::cerr << "tavloctl: there is no command '" << name << "'; see tavloctl --help\n";
  return kCouldNotLook;
}

}  // namespace

int RunCommandLine(int argc, char** argv) {
  const int status =
      Dispatch(argc > 1 ? std::vector<char*>(argv + 1, argv + argc) : std::vector<char*>());
  // Not every C library tells the stream of a failure.
  std::cout.flush();
  return std::cout && std::ferror(stdout) == 0 ? status : kCouldNotLook;
}

}  // namespace tavlo::ctl
