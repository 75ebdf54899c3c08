// A log that somebody summarises: any bytes, many of them in lines like the daemon's.

#include "ctl/log_summary.h"

#include <limits>
#include <sstream>

#include "fuzz/fuzz.h"

namespace {

bool IsPrintable(const std::string& text) {
  for (const char c : text) {
    if (c != '\n' && (c < ' ' || c > '~')) {
      return false;
    }
  }
  return true;
}

// Each line has a byte in front that says who wrote it and how.
std::string LineOf(fuzz::Input* input) {
  static const char* const kHeads[] = {
      "",
      "2026-11-21 15:46:20.766 [4d2.1] ERROR: f: ",
      "2026-11-21 15:46:21.766 [4d2.1] INFO: void tavlo::AgentHost::DispatchRequest: ",
      "2026-11-21 15:46:22.766 [4d2.1] DEBUG: void tavlo::AgentHost::DispatchRequest: ",
      "2026-11-21 15:46:23.766 [4d2.2] INFO: void tavlo::ClientTable::Refuse: ",
      "2026-11-21 15:46:24.766 [4d2.2] DEBUG: void tavlo::ClientTable::OnAnswer: ",
      "Nov 21 15:46:20 router tavlo[1234]: ",
  };
  return kHeads[input->Byte() % (sizeof kHeads / sizeof *kHeads)] + input->Line();
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Input input(data, size);
  const int64_t since = input.Byte() % 2 == 0 ? std::numeric_limits<int64_t>::min() : 0;
  tavlo::ctl::LogSummary summary(tavlo::ctl::MessageTable::Built(), since);
  while (!input.IsAtEnd()) {
    summary.Add(LineOf(&input));
  }
  const tavlo::ctl::LogReport report = summary.Report();
  uint64_t requests = 0;
  for (const auto& row : report.endpoints) {
    requests += row.traffic.count;
  }
  fuzz::Require(requests == report.RequestCount(), "each request is one of a listener's endpoint");
  for (const auto print : {tavlo::ctl::PrintText, tavlo::ctl::PrintJson, tavlo::ctl::PrintPlot}) {
    std::ostringstream out;
    print(report, out);
    fuzz::Require(IsPrintable(out.str()), "all of it can be printed");
  }
  return 0;
}
