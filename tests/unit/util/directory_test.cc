#include "util/directory.h"

#include <cerrno>
#include <filesystem>
#include <list>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/temporary_directory.h"

namespace {

namespace fs = std::filesystem;

using testing::ElementsAre;
using testing::IsEmpty;

class ListDirectory : public testing::Test {
 protected:
  const test::TemporaryDirectory directory_;
  std::list<std::string> names_ = {"an earlier name"};
};

TEST_F(ListDirectory, GivesSortedNamesWithHiddenOnes) {
  directory_.Write("b", "");
  directory_.Write("a", "");
  directory_.Write(".hidden", "");
  EXPECT_TRUE(stdext::list_directory(directory_.Path(), &names_));
  EXPECT_THAT(names_, ElementsAre(".hidden", "a", "b"));
}

TEST_F(ListDirectory, SortsByBytes) {
  for (const char* name : {"a", "B", "10", "9", "\xc3\xa4", "aa"}) {
    directory_.Write(name, "");
  }
  EXPECT_TRUE(stdext::list_directory(directory_.Path(), &names_));
  EXPECT_THAT(names_, ElementsAre("10", "9", "B", "a", "aa", "\xc3\xa4"));
}

TEST_F(ListDirectory, LeavesOutExactlyTheDirectoryAndItsParent) {
  for (const char* name : {"...", "..a", ".a", "a."}) {
    directory_.Write(name, "");
  }
  EXPECT_TRUE(stdext::list_directory(directory_.Path(), &names_));
  EXPECT_THAT(names_, ElementsAre("...", "..a", ".a", "a."));
}

TEST_F(ListDirectory, GivesEntriesOfAnyType) {
  directory_.Write("directory/file", "");
  fs::create_symlink("nowhere", directory_ / "link");
  EXPECT_TRUE(stdext::list_directory(directory_.Path(), &names_));
  EXPECT_THAT(names_, ElementsAre("directory", "link"));
}

TEST_F(ListDirectory, GivesNoNamesForAnEmptyDirectory) {
  EXPECT_TRUE(stdext::list_directory(directory_.Path(), &names_));
  EXPECT_THAT(names_, IsEmpty());
}

TEST_F(ListDirectory, FailsWithAnEmptyListForAMissingDirectory) {
  errno = 0;
  EXPECT_FALSE(stdext::list_directory(directory_ / "missing", &names_));
  EXPECT_EQ(errno, ENOENT);
  EXPECT_THAT(names_, IsEmpty());
}

TEST_F(ListDirectory, FailsForAFile) {
  EXPECT_FALSE(stdext::list_directory(directory_.Write("file", ""), &names_));
  EXPECT_EQ(errno, ENOTDIR);
  EXPECT_THAT(names_, IsEmpty());
}

}  // namespace
