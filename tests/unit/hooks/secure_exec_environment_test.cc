// The environment of the programs that SecureExec runs.

#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <unistd.h>

#include "hooks/secure_exec.h"
#include "support/temporary_directory.h"

namespace {

using testing::ElementsAre;

// The entries of a child whose parent has exactly these.
std::vector<std::string> ChildEnvironment(const std::vector<const char*>& parent) {
  ::clearenv();
  for (const char* entry : parent) {
    ::putenv(const_cast<char*>(entry));
  }
  std::string output;
  EXPECT_EQ(Orx::SecureExec("/usr/bin/env", {}, "", &output, 10000, 60), 0);
  std::vector<std::string> entries;
  std::istringstream lines(output);
  for (std::string line; std::getline(lines, line);) {
    entries.push_back(line);
  }
  return entries;
}

TEST(Environment, OfTheDaemonIsKeptInItsOrder) {
  EXPECT_THAT(ChildEnvironment({"B=2", "A=1", "EMPTY="}), ElementsAre("B=2", "A=1", "EMPTY="));
}

TEST(Environment, LosesTheDaemonsOwnLoaderVariables) {
  EXPECT_THAT(ChildEnvironment({"LD_LIBRARY_PATH=/own", "A=1", "LD_PRELOAD="}), ElementsAre("A=1"));
  // Whatever their values.
  EXPECT_THAT(ChildEnvironment({"LD_LIBRARY_PATH=own:lib", "A=1"}), ElementsAre("A=1"));
  EXPECT_THAT(ChildEnvironment({"LD_LIBRARY_PATH=", "A=1"}), ElementsAre("A=1"));
}

TEST(Environment, KeepsVariablesWithSimilarNames) {
  EXPECT_THAT(ChildEnvironment({"LD_PRELOAD_X=1", "LD_LIBRARY_PATHS=2", "XLD_PRELOAD=3",
                                "MIREL_ORIGINAL=4", "MIREL_OTHER=5"}),
              ElementsAre("LD_PRELOAD_X=1", "LD_LIBRARY_PATHS=2", "XLD_PRELOAD=3",
                          "MIREL_ORIGINAL=4", "MIREL_OTHER=5"));
}

TEST(Environment, LosesEverySavedVariableAndGetsTheLoadersBackAtTheEnd) {
  EXPECT_THAT(
      ChildEnvironment({"MIREL_ORIGINAL_LD_PRELOAD=", "MIREL_ORIGINAL_OTHER=x",
                        "MIREL_ORIGINAL_LD_LIBRARY_PATH=/saved", "LD_LIBRARY_PATH=/own", "Z=1"}),
      ElementsAre("Z=1", "LD_LIBRARY_PATH=/saved", "LD_PRELOAD="));
}

TEST(Environment, GetsBackTheLibraryPathAlone) {
  EXPECT_THAT(ChildEnvironment({"MIREL_ORIGINAL_LD_LIBRARY_PATH=/saved", "LD_PRELOAD="}),
              ElementsAre("LD_LIBRARY_PATH=/saved"));
  EXPECT_THAT(ChildEnvironment({"MIREL_ORIGINAL_LD_LIBRARY_PATH=", "LD_LIBRARY_PATH=/own"}),
              ElementsAre("LD_LIBRARY_PATH="));
}

TEST(Environment, GetsBackThePreloadAlone) {
  EXPECT_THAT(ChildEnvironment({"MIREL_ORIGINAL_LD_PRELOAD=", "LD_LIBRARY_PATH=/own"}),
              ElementsAre("LD_PRELOAD="));
}

TEST(Environment, MayBeEmpty) {
  EXPECT_THAT(ChildEnvironment({}), ElementsAre());
}

}  // namespace
