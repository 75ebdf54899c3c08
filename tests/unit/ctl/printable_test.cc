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

}  // namespace
