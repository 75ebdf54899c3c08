#include "ctl/message_table.h"

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using tavlo::ctl::MessageTable;

constexpr const char* kPage = R"(# A page

| Message | Cause | Cure |
|---|---|---|
| `Outer: %s` | the rest is one of the others | see there |
| `Failed to read %s: %s` | a [first](page.md#part) and a [second](other.md) link | fix it |
| `%s failed: %s` | a \| b | none |
| `Failed to read` | short | short |
| no code | a | b |
| `two cells` | a |

`Not a row: %s`
)";

TEST(MessageTable, HasTheRowsOfAPage) {
  const MessageTable table(kPage);
  EXPECT_EQ(table.Messages().size(), 4U);
}

TEST(MessageTable, ExplainsAText) {
  const MessageTable table(kPage);
  const auto meaning = table.Explain("Failed to read /a: 2 No such file");
  ASSERT_TRUE(meaning);
  EXPECT_EQ(meaning->message->format, "Failed to read %s: %s");
  EXPECT_EQ(meaning->message->cure, "fix it");
  EXPECT_EQ(meaning->rest, nullptr);
}

TEST(MessageTable, ShowsWhereALinkLeads) {
  const MessageTable table(kPage);
  EXPECT_EQ(table.Explain("Failed to read a: b")->message->cause,
            "a first (docs/page.md#part) and a second (docs/other.md) link");
}

TEST(MessageTable, KnowsBarsWithinACell) {
  const MessageTable table(kPage);
  EXPECT_EQ(table.Explain("x failed: y")->message->cause, "a | b");
}

TEST(MessageTable, ExplainsTheRestWhereThatDecides) {
  const MessageTable table(kPage);
  const auto meaning = table.Explain("Outer: Failed to read /a: 2");
  ASSERT_TRUE(meaning);
  EXPECT_EQ(meaning->message->format, "Outer: %s");
  ASSERT_NE(meaning->rest, nullptr);
  EXPECT_EQ(meaning->rest->format, "Failed to read %s: %s");
  EXPECT_EQ(table.Explain("Outer: something new")->rest, nullptr);
}

TEST(MessageTable, GoesByWhatATextBeginsWith) {
  const MessageTable table(kPage);
  EXPECT_EQ(table.Explain("Failed to read a failed: b: c")->message->format,
            "Failed to read %s: %s");
}

TEST(MessageTable, DoesNotKnowEverything) {
  const MessageTable table(kPage);
  EXPECT_FALSE(table.Explain("something new"));
  EXPECT_FALSE(table.Explain(""));
  EXPECT_FALSE(MessageTable("").Explain("Failed to read"));
}

// That it is the page as it stands a test of the documents shows.
TEST(MessageTable, IsBuiltFromThePage) {
  const auto meaning = MessageTable::Built().Explain("Destination request failed");
  ASSERT_TRUE(meaning);
  EXPECT_THAT(meaning->message->cure, testing::HasSubstr("agentDstAddr"));
}

}  // namespace
