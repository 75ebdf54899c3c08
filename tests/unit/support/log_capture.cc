#include "support/log_capture.h"

#include <algorithm>
#include <sstream>

#include "util/log.h"

namespace test {

namespace {

bool EndsWith(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

}  // namespace

LogCapture::LogCapture() {
  Orx::Log::Open("test", directory_ / "log", Orx::Log::kDebug, false, false, true);
}

std::vector<std::string> LogCapture::Lines() const {
  std::vector<std::string> lines;
  std::istringstream text(ReadFile(directory_ / "log"));
  for (std::string line; std::getline(text, line);) {
    const size_t header = line.find("] ");
    lines.push_back(header == std::string::npos ? line : line.substr(header + 2));
  }
  return lines;
}

std::vector<std::string> LogCapture::Messages() const {
  std::vector<std::string> lines = Lines();
  lines.erase(std::remove_if(lines.begin(), lines.end(),
                             [](const std::string& line) {
                               return EndsWith(line, ": Enter") || EndsWith(line, ": Leave");
                             }),
              lines.end());
  return lines;
}

}  // namespace test
