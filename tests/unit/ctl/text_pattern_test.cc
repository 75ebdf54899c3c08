#include "ctl/text_pattern.h"

#include <optional>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using tavlo::ctl::NumberIn;
using tavlo::ctl::TextPattern;
using testing::ElementsAre;

using Values = std::vector<std::string_view>;

TEST(TextPattern, MatchesATextWithoutValuesAlone) {
  Values values;
  EXPECT_TRUE(TextPattern("a text").Match("a text", &values));
  EXPECT_THAT(values, ElementsAre());
  EXPECT_FALSE(TextPattern("a text").Match("a text.", &values));
  EXPECT_FALSE(TextPattern("a text").Match("a tex", &values));
}

TEST(TextPattern, FindsTheValues) {
  Values values;
  ASSERT_TRUE(TextPattern("Ended %zu clients, the last of %s: %s")
                  .Match("Ended 12 clients, the last of 192.0.2.7: too many: so", &values));
  EXPECT_THAT(values, ElementsAre("12", "192.0.2.7", "too many: so"));
}

TEST(TextPattern, KnowsConversionsOfAllSizes) {
  Values values;
  ASSERT_TRUE(TextPattern("%d %lld %hhu %zd%s").Match("1 2 3 4", &values));
  EXPECT_THAT(values, ElementsAre("1", "2", "3", "", "4"));
}

TEST(TextPattern, MustEndAsTheFormatDoes) {
  Values values;
  const TextPattern pattern("%s is refused");
  EXPECT_FALSE(pattern.Match("it is refused again", &values));
  ASSERT_TRUE(pattern.Match("it is refused, and is refused", &values));
  EXPECT_THAT(values, ElementsAre("it is refused, and"));
}

TEST(TextPattern, DoesNotUseALiteralTwice) {
  Values values;
  EXPECT_FALSE(TextPattern("a %s: b: %s").Match("a b: ", &values));
  EXPECT_FALSE(TextPattern("'%s'").Match("'", &values));
  EXPECT_TRUE(TextPattern("'%s'").Match("''", &values));
}

TEST(TextPattern, SurvivesAFormatThatIsNone) {
  Values values;
  EXPECT_TRUE(TextPattern("50%").Match("50 and more", &values));
  EXPECT_TRUE(TextPattern("50%z").Match("50", &values));
  EXPECT_TRUE(TextPattern("").Match("", &values));
}

TEST(NumberIn, TakesWholeNumbersUpToALimit) {
  EXPECT_EQ(NumberIn("0", 10), 0);
  EXPECT_EQ(NumberIn("10", 10), 10);
  EXPECT_EQ(NumberIn("11", 10), std::nullopt);
  for (const char* text : {"", "-1", "-0", "+1", " 1", "1 ", "1x", "99999999999999999999"}) {
    EXPECT_EQ(NumberIn(text, 1000), std::nullopt) << text;
  }
}

}  // namespace
