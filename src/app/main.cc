#include <cstdio>
#include <cstdlib>
#include <exception>

#include <signal.h>
#include <unistd.h>

#include "app/command_line.h"
#include "app/run_loop.h"
#include "app/start_up.h"
#include "util/crash_handler.h"
#include "util/descriptor.h"
#include "util/log.h"
#include "util/standard_error.h"

namespace {

// Ends the process when there is nothing to run, or nothing to run it with.
void Start(int argc, char** argv) {
  Mirel::RegisterCrashHandler(argc > 0 ? argv[0] : "");
  stdext::open_missing_standard_descriptors();
  const std::optional<tavlo::Options> options = tavlo::ParseCommandLine(argc, argv);
  if (!options) {
    std::exit(EXIT_FAILURE);
  }
  // A write to a log that is as large as a file may be (ulimit -f) fails like another.
  ::signal(SIGXFSZ, SIG_IGN);
  // Ignored, as whoever started the daemon may have it, it would have the kernel take away the ends
  // of scripts, and give their PIDs to others while they still count as running.
  ::signal(SIGCHLD, SIG_DFL);
  const std::string logPath = options->logPath.value_or("");
  if (options->printKey) {
    // Deliberate: this mode logs under a name of its own, and to standard error alone.
    Orx::Log::Open("kxtunnel", logPath, Orx::Log::kError, true, false, false);
    PrintConfigValue(options->configPath, *options->printKey);
  }
  stdext::own_standard_error();
  Orx::Log::Open("tavlo", logPath, options->debug ? Orx::Log::kDebug : Orx::Log::kInfo, true,
                 options->sysLog, options->logPath.has_value());
  if (!Init(options->configPath)) {
    std::exit(EXIT_FAILURE);
  }
}

}  // namespace

int main(int argc, char** argv) {
  try {
    Start(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "ERROR: Failed to start: %s\n", error.what());
    return EXIT_FAILURE;
  }
  Run();
  Orx::Log::Close();
  // At once: the host threads still use what the static destructors would take away.
  ::_exit(tavlo::TheProcess().exitStatus);
}
