#include "hooks/key_value_storage.h"

#include <map>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using Orx::KeyValueStorage::StringToMap;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

using Map = std::map<std::string, std::string>;

static_assert(std::is_same_v<decltype(StringToMap(std::string())), Map>);

TEST(StringToMapLines, AreKeyColonValue) {
  EXPECT_THAT(StringToMap("a:b"), ElementsAre(Pair("a", "b")));
}

TEST(StringToMapLines, AreSeparatedByLineFeeds) {
  const Map expected = {{"a", "b"}, {"c", "d"}};
  EXPECT_EQ(StringToMap("a:b\nc:d\n"), expected);
  EXPECT_EQ(StringToMap("a:b\nc:d"), expected) << "the last line needs no line feed";
  EXPECT_EQ(StringToMap("\n\na:b\n\nc:d\n\n"), expected) << "empty lines count for nothing";
}

TEST(StringToMapLines, AreNotSeparatedByCarriageReturnsAlone) {
  EXPECT_THAT(StringToMap("a:b\rc:d"), ElementsAre(Pair("a", "b\rc:d")));
}

TEST(StringToMapLines, OfNoTextAreNone) {
  EXPECT_THAT(StringToMap(""), IsEmpty());
  EXPECT_THAT(StringToMap("\n"), IsEmpty());
  EXPECT_THAT(StringToMap("\r\n\r\n"), IsEmpty());
}

TEST(StringToMapLines, AreSkippedWhenShorterThanThreeCharacters) {
  EXPECT_THAT(StringToMap("ab"), IsEmpty());
  EXPECT_THAT(StringToMap("a"), IsEmpty());
  EXPECT_THAT(StringToMap(":"), IsEmpty());
  EXPECT_THAT(StringToMap("::"), IsEmpty());
}

TEST(StringToMapLines, AreSkippedWithoutAColon) {
  EXPECT_THAT(StringToMap("a line without one"), IsEmpty());
}

TEST(StringToMapLines, AreSkippedWhenTheFirstColonIsFirst) {
  EXPECT_THAT(StringToMap(":x"), IsEmpty());
  EXPECT_THAT(StringToMap(":value"), IsEmpty());
  EXPECT_THAT(StringToMap(":key:value"), IsEmpty());
}

TEST(StringToMapLines, AreSkippedWhenTheFirstColonIsLast) {
  EXPECT_THAT(StringToMap("x:"), IsEmpty());
  EXPECT_THAT(StringToMap("key:"), IsEmpty());
}

TEST(StringToMapLines, AreKeptWhenAFurtherColonIsLast) {
  EXPECT_THAT(StringToMap("k::"), ElementsAre(Pair("k", ":")));
}

TEST(StringToMapLines, ThatAreSkippedDoNotAffectTheOthers) {
  EXPECT_THAT(StringToMap("junk\na:b\n:x\nx:\nc:d\n"), ElementsAre(Pair("a", "b"), Pair("c", "d")));
}

TEST(StringToMapKey, IsWhatStandsBeforeTheFirstColon) {
  EXPECT_THAT(StringToMap("url:https://192.0.2.1:8443/a:b"),
              ElementsAre(Pair("url", "https://192.0.2.1:8443/a:b")));
}

TEST(StringToMapKey, IsTrimmedOnTheRightOnly) {
  EXPECT_THAT(StringToMap("name : value"), ElementsAre(Pair("name", "value")));
  EXPECT_THAT(StringToMap(" name :value"), ElementsAre(Pair(" name", "value")));
  EXPECT_THAT(StringToMap("name \r \r:value"), ElementsAre(Pair("name", "value")));
  EXPECT_THAT(StringToMap("\rtwo words:value"), ElementsAre(Pair("\rtwo words", "value")));
}

TEST(StringToMapKey, OfBlanksOnlyBecomesEmptyAndCounts) {
  EXPECT_THAT(StringToMap("  : v"), ElementsAre(Pair("", "v")));
  EXPECT_THAT(StringToMap("\r:v"), ElementsAre(Pair("", "v")));
}

TEST(StringToMapKey, KeepsATab) {
  EXPECT_THAT(StringToMap("name\t:value"), ElementsAre(Pair("name\t", "value")));
}

TEST(StringToMapValue, IsTrimmedOnTheLeftOnly) {
  EXPECT_THAT(StringToMap("name:  value "), ElementsAre(Pair("name", "value ")));
  EXPECT_THAT(StringToMap(" name:value "), ElementsAre(Pair(" name", "value ")));
  EXPECT_THAT(StringToMap("name: \r \rtwo words"), ElementsAre(Pair("name", "two words")));
}

TEST(StringToMapValue, OfBlanksOnlyBecomesEmptyAndCounts) {
  EXPECT_THAT(StringToMap("a: "), ElementsAre(Pair("a", "")));
  EXPECT_THAT(StringToMap("a:\r"), ElementsAre(Pair("a", "")));
  EXPECT_THAT(StringToMap("a:\r\n"), ElementsAre(Pair("a", "")));
  EXPECT_THAT(StringToMap(" :  "), ElementsAre(Pair("", "")));
}

TEST(StringToMapValue, KeepsATab) {
  EXPECT_THAT(StringToMap("name:\tvalue"), ElementsAre(Pair("name", "\tvalue")));
}

TEST(StringToMapValue, KeepsACarriageReturnAtItsEnd) {
  EXPECT_THAT(StringToMap("a:b\r\nc:d\r\n"), ElementsAre(Pair("a", "b\r"), Pair("c", "d\r")));
}

TEST(StringToMapValue, OfTheLastLineWithAKeyWins) {
  EXPECT_THAT(StringToMap("k:first\nk:second"), ElementsAre(Pair("k", "second")));
  EXPECT_THAT(StringToMap("k:first\nk :\r"), ElementsAre(Pair("k", "")))
      << "by the trimmed key, an empty value too";
}

TEST(StringToMapValue, OfASkippedLineReplacesNothing) {
  EXPECT_THAT(StringToMap("k:first\nk:"), ElementsAre(Pair("k", "first")));
}

TEST(StringToMapBytes, MayBeAny) {
  const std::string nul("a\0b:c\0d", 7);
  EXPECT_THAT(StringToMap(nul), ElementsAre(Pair(std::string("a\0b", 3), std::string("c\0d", 3))));
  EXPECT_THAT(StringToMap("\xff:\xfe"), ElementsAre(Pair("\xff", "\xfe")));
}

TEST(StringToMapBytes, DecideTheOrderOfTheKeys) {
  EXPECT_THAT(StringToMap("b:1\n\xc3\xa4:2\na:3\nB:4\naa:5"),
              ElementsAre(Pair("B", "4"), Pair("a", "3"), Pair("aa", "5"), Pair("b", "1"),
                          Pair("\xc3\xa4", "2")));
}

// The same rules, written once more in another way: character by character.
Map Reference(const std::string& text) {
  const auto isTrimmed = [](char c) { return c == ' ' || c == '\r' || c == '\n'; };
  Map values;
  std::vector<std::string> lines(1);
  for (const char c : text) {
    if (c == '\n') {
      lines.emplace_back();
    } else {
      lines.back() += c;
    }
  }
  for (const std::string& line : lines) {
    std::string key;
    size_t at = 0;
    while (at < line.size() && line[at] != ':') {
      key += line[at++];
    }
    if (line.size() < 3 || key.empty() || at + 1 >= line.size()) {
      continue;
    }
    while (!key.empty() && isTrimmed(key.back())) {
      key.pop_back();
    }
    do {
      ++at;
    } while (at < line.size() && isTrimmed(line[at]));
    values.insert_or_assign(key, line.substr(at));
  }
  return values;
}

TEST(StringToMapRandomTexts, GiveWhatTheReferenceGives) {
  const std::string alphabet("::::ab  \r\r\n\n\n\t\0", 15);
  // The same in every run. NOLINTNEXTLINE(cert-msc32-c,cert-msc51-cpp)
  std::mt19937 random(20260131);
  int entries = 0;
  for (int round = 0; round < 5000; ++round) {
    std::string text(random() % 24, ' ');
    for (char& c : text) {
      c = alphabet[random() % alphabet.size()];
    }
    const Map expected = Reference(text);
    ASSERT_EQ(StringToMap(text), expected) << testing::PrintToString(text);
    entries += static_cast<int>(expected.size());
  }
  EXPECT_GT(entries, 1000) << "too few of the texts hold anything";
}

}  // namespace
