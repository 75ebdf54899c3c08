#include "ctl/printable.h"

#include <string>

#include <gtest/gtest.h>

namespace {

using tavlo::ctl::Printable;

TEST(Printable, LeavesPrintableAsciiAsItIs) {
  std::string text;
  for (char c = ' '; c < 0x7f; ++c) {
    text += c == '\\' ? '/' : c;
  }
  EXPECT_EQ(Printable(text, 1000), text);
}

TEST(Printable, ShowsEachOtherByteByItsNumber) {
  EXPECT_EQ(Printable(std::string("\x1b[31m\r\t\n\0\x7f\x80\xff", 12), 100),
            "\\x1b[31m\\x0d\\x09\\x0a\\x00\\x7f\\x80\\xff");
}

TEST(Printable, CannotBeMistaken) {
  EXPECT_EQ(Printable("\\x1b", 100), "\\\\x1b");
}

TEST(Printable, CutsAfterSoManyBytes) {
  EXPECT_EQ(Printable("12345", 5), "12345");
  EXPECT_EQ(Printable("123456", 5), "12345...");
}

TEST(ForTerminal, LeavesAllButControlCharacters) {
  EXPECT_EQ(tavlo::ctl::ForTerminal("a\x1b[1m\tna\xc3\xafve\\\r\n\x7f~"),
            "a?[1m\tna\xc3\xafve\\???~");
  EXPECT_EQ(tavlo::ctl::ForTerminal("a\xc2\x80\xc2\x9b\xc2\x9f\xc2\xa0"), "a???\xc2\xa0");
}

TEST(ForTerminal, ShowsWhatIsNoUtf8ByItsBytes) {
  EXPECT_EQ(tavlo::ctl::ForTerminal("a\x9b\x1b"), "a\\x9b\\x1b");
}

TEST(IsUtf8, KnowsWholeCharacters) {
  for (const char* text : {"", "a", "na\xc3\xafve", "\xe2\x82\xac", "\xf0\x9f\x8f\xa0"}) {
    EXPECT_TRUE(tavlo::ctl::IsUtf8(text)) << text;
  }
  EXPECT_TRUE(tavlo::ctl::IsUtf8(std::string(2, '\0')));
  for (const char* text :
       {"\xff", "\xc3", "a\xe2\x82", "\xc3\x28", "\xc0\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80"}) {
    EXPECT_FALSE(tavlo::ctl::IsUtf8(text)) << text;
  }
}

}  // namespace
