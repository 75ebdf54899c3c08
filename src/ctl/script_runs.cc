#include "ctl/script_runs.h"

#include <regex>
#include <sstream>

namespace tavlo::ctl {

namespace {

// A line, from its level on. What a script says may hold a carriage return, which no "." matches.
std::regex Line(const std::string& form) {
  return std::regex(R"([^\]]*\] )" + form + R"(([\s\S]*))");
}

}  // namespace

ScriptRuns ReadScriptRuns(const std::string& log) {
  const std::regex ended =
      Line(R"(DEBUG: int Orx::SecureExec: PID \d+ ended with status (-?\d+) after (\d+) ms: )");
  const std::regex said = Line(R"(ERROR: void Orx::SecureExecStderr: stderr from pid \d+: )");
  const std::regex failed = Line(R"(ERROR: [^:]*(?:::[^:]+)*: )");
  ScriptRuns found;
  std::istringstream lines(log);
  std::smatch parts;
  for (std::string line; std::getline(lines, line);) {
    if (std::regex_match(line, parts, ended)) {
      found.runs.push_back(
          {parts[3], std::stoi(parts[1]), std::stol(parts[2]), std::move(found.remarks)});
      found.remarks.clear();
    } else if (std::regex_match(line, parts, said)) {
      found.remarks.push_back("stderr: " + parts[1].str());
    } else if (std::regex_match(line, parts, failed)) {
      found.remarks.push_back("error: " + parts[1].str());
    }
  }
  return found;
}

}  // namespace tavlo::ctl
