// What shows at the command line itself is in tests/system/test_command_line.py.

#include "app/command_line.h"

#include <iostream>
#include <sstream>

#include <gtest/gtest.h>

#include "support/faults.h"

namespace {

TEST(CommandLine, TellsOfAValueThatGetoptShouldNotReturn) {
  const test::Fault fault("getopt_long", 0);
  const std::ostringstream text;
  std::streambuf* const before = std::clog.rdbuf(text.rdbuf());
  std::string name = "tavlo";
  char* arguments[] = {name.data(), nullptr};
  const auto options = tavlo::ParseCommandLine(1, arguments);
  std::clog.rdbuf(before);

  EXPECT_FALSE(options);
  EXPECT_EQ(text.str(), "Unknown return value from getopt\n");
}

}  // namespace
