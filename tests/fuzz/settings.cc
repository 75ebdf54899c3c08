// The configuration file.

#include <sys/mman.h>
#include <unistd.h>

#include "ctl/checks.h"
#include "ctl/command.h"
#include "fuzz/fuzz.h"
#include "settings/app_settings.h"

namespace {

std::string Values(const tavlo::AppSettings& settings) {
  std::string all;
  for (const tavlo::AppSettings::Key& key : settings.Keys()) {
    std::string value;
    fuzz::Require(settings.GetConfigValue(key.name, &value), "every key has a value");
    all += std::to_string(value.size()) + ":" + value;
  }
  return all;
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const int file = ::memfd_create("settings", 0);
  static const std::string path = "/proc/self/fd/" + std::to_string(file);
  fuzz::Require(
      ::ftruncate(file, 0) == 0 && ::pwrite(file, data, size, 0) == static_cast<ssize_t>(size),
      "the file is written");

  tavlo::AppSettings settings;
  const std::string before = Values(settings);
  bool changed = false;
  const bool loaded = settings.LoadConfigFile(path, &changed);
  fuzz::Require(changed == (Values(settings) != before), "a change is reported");
  fuzz::Require(loaded || !changed, "a file that is refused changes nothing");
  for (const uint16_t port :
       {settings.AgentDstPort(), settings.AgentHttpPort(), settings.AgentHttpsPort()}) {
    fuzz::Require(port != 0, "a port is a port");
  }

  tavlo::AppSettings checked;
  tavlo::ctl::Findings findings;
  fuzz::Require(tavlo::ctl::CheckSettings(path, &checked, &findings) == loaded,
                "tavloctl takes what the daemon takes");
  fuzz::Require(Values(checked) == Values(settings), "and sees the same in force");
  fuzz::Require(loaded || findings.ExitCode() == tavlo::ctl::kFindings, "and says why not");
  return 0;
}
