#include "libZel/regex.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using std::string_literals::operator""s;
using MatchClock = std::chrono::steady_clock;

// Far more than a bounded search takes, even under a sanitizer beside other tests.
constexpr std::chrono::seconds kLongMatch{60};
constexpr size_t kLargeBytes = 10'000'000;

bool Matches(const ZelString& text, const ZelString& pattern) {
  return MatchRegex(text, pattern, 0);
}

// The text afterwards, and how many replacements there were.
std::pair<ZelString, int> Replaced(ZelString text, const ZelString& pattern,
                                   const ZelString& replacement) {
  const int count = PcreReplace(&text, pattern, replacement, 0);
  return {text, count};
}
using Result = std::pair<ZelString, int>;

TEST(MatchRegex, FindsAPatternAnywhereInTheText) {
  EXPECT_TRUE(Matches("backup_20240131.zip", "_[0-9]{8}"));
  EXPECT_FALSE(Matches("backup_2024.zip", "_[0-9]{8}"));
  EXPECT_TRUE(Matches("", ""));
  EXPECT_TRUE(Matches("x", ""));
  EXPECT_FALSE(Matches("", "x"));
  EXPECT_TRUE(Matches("aXb", "(?i)x"));
}

TEST(MatchRegex, KnowsNoFlags) {
  for (const int flags : {1, 2, -1}) EXPECT_FALSE(MatchRegex("x", "x", flags)) << flags;
}

TEST(MatchRegex, AnchorsAtTheTextsEnds) {
  EXPECT_TRUE(Matches("data_20240131", "^data_\\d{8}$"));
  EXPECT_FALSE(Matches("olddata_20240131", "^data_\\d{8}$"));
  EXPECT_FALSE(Matches("a\ndata", "^data$"));
}

TEST(MatchRegex, KnowsCarriageReturnAndLineFeedAsLineEnds) {
  EXPECT_FALSE(Matches("a\rb", "a.b"));
  EXPECT_FALSE(Matches("a\nb", "a.b"));
  EXPECT_TRUE(
      Matches("a\x0B"
              "b",
              "a.b"));
  EXPECT_TRUE(Matches("a\rb", "(?m)^b$"));
  EXPECT_TRUE(Matches("a\r\n", "a$"));
}

TEST(MatchRegex, TakesTextsAsBytes) {
  EXPECT_TRUE(Matches("ü", "^..$"));
  EXPECT_FALSE(Matches("ü", "^.$"));
  EXPECT_TRUE(Matches("grün", "gr\xC3\xBCn"));
  EXPECT_TRUE(Matches("\xFF", "^...$"));  // a lone surrogate
  EXPECT_TRUE(Matches("a\0b"s, "a\\x00b"));
  EXPECT_TRUE(Matches("a\0b"s, "a\0b"s));
}

TEST(MatchRegex, IsNeverTrueOfAMalformedPattern) {
  for (const char* pattern : {"(", "[a", "a{2,1}", "*", "\\", "(?<n", "(*UTF)a", "(*UCP)a"}) {
    EXPECT_FALSE(Matches("a", pattern)) << pattern;
  }
  const ZelString huge(std::string(100'000, 'a'));
  EXPECT_FALSE(Matches(huge, huge));
  EXPECT_TRUE(Matches("a", "a"));
}

TEST(MatchRegex, TellsPatternsThatFollowEachOtherApart) {
  EXPECT_TRUE(Matches("a", "a"));
  EXPECT_FALSE(Matches("a", "b"));
  ZelVector<ZelString> captures;
  EXPECT_EQ(FindPcre("A", "a", captures, 0, 1, 0), 1);
  EXPECT_FALSE(Matches("A", "a"));
  EXPECT_EQ(FindPcre("A", "a", captures, 0, 0, 0), 0);
}

TEST(MatchRegex, GivesUpWhatTakesUnreasonablyLong) {
  const ZelString letters(std::string(kLargeBytes, 'a'));
  const char* const kHostile[] = {
      "(a+)+$b|(a+)+[xy]",      // exponential at each place
      "[ab]*[cd]",              // all the rest of the text, from each place
      "^(?:(?=[ab]*+)a)*[cd]",  // the same within a single attempt
      "(a*)\\1[cd]",            // comparisons with what was found
      "(?:a|a)*[cd]",           // much to remember
      "(?R)?a*[cd]",            // recursion
      "(?:(?:a{1,50}){1,50}){1,20}[cd]",
  };
  for (const char* pattern : kHostile) {
    const auto start = MatchClock::now();
    EXPECT_FALSE(Matches(letters, pattern)) << pattern;
    EXPECT_LT(MatchClock::now() - start, kLongMatch) << pattern;
  }
}

TEST(MatchRegex, ReachesTheEndOfALargeText) {
  const ZelString text(std::string(kLargeBytes, 'a') + "1b");
  EXPECT_TRUE(Matches(text, "[0-9]b$"));
  EXPECT_TRUE(Matches(text, "^.*1"));
  EXPECT_FALSE(Matches(text, "[0-9]{2}"));
}

TEST(MatchRegex, RemembersAHundredThousandChoices) {
  EXPECT_TRUE(Matches(std::string(100'000, 'a') + "1", "^(?:a|b)+1"));
}

TEST(MatchRegex, RunsInSeveralThreadsAtOnce) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([i] {
      const ZelString number = ZelString::FromInt64(i);
      for (int j = 0; j < 100; ++j) {
        EXPECT_TRUE(Matches("thread " + number, "d " + number + "$"));
        EXPECT_FALSE(Matches("thread " + number, "d " + number + "x"));
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

TEST(PcreReplace, ReplacesEveryMatch) {
  EXPECT_EQ(Replaced("a1b22c", "[0-9]+", "#"), Result("a#b#c", 2));
  EXPECT_EQ(Replaced("aaaa", "aa", "b"), Result("bb", 2));
  EXPECT_EQ(Replaced("abc", "x", "#"), Result("abc", 0));
  EXPECT_EQ(Replaced("", "", "#"), Result("#", 1));
  EXPECT_EQ(Replaced("abc", "b", ""), Result("ac", 1));
}

TEST(PcreReplace, KnowsNoFlags) {
  for (const int flags : {1, 2, -1}) {
    ZelString text = "x";
    EXPECT_EQ(PcreReplace(&text, "x", "y", flags), 0) << flags;
    EXPECT_EQ(text, "x");
  }
}

TEST(PcreReplace, TakesTheReplacementAsItStands) {
  EXPECT_EQ(Replaced("abc", "(b)", "$1\\1${x}$$"), Result("a$1\\1${x}$$c", 1));
  EXPECT_EQ(Replaced("b", "b", "a\0b"s), Result("a\0b"s, 1));
}

TEST(PcreReplace, GoesOnAfterEmptyMatches) {
  EXPECT_EQ(Replaced("ab", "x*", "-"), Result("-a-b-", 3));
  EXPECT_EQ(Replaced("baac", "a*", "-"), Result("-b--c-", 4));
  EXPECT_EQ(Replaced("ab\ncd", "(?m)^", "> "), Result("> ab\n> cd", 2));
  EXPECT_EQ(Replaced("ab", "(?=b)|b", "-"), Result("a--", 2));
}

TEST(PcreReplace, PutsNothingInsideACharacter) {
  EXPECT_EQ(Replaced("aü€b", "x*", "-"), Result("-a-ü-€-b-", 5));
}

TEST(PcreReplace, StaysWithinLines) {
  EXPECT_EQ(Replaced("<v a=\"1\"/>\r\n<v a=\"2\"/>\n", "a=\".+\"/>", "a=\"x\"/>"),
            Result("<v a=\"x\"/>\r\n<v a=\"x\"/>\n", 2));
  EXPECT_EQ(Replaced("http://one:80/x https://two:8080/y\nhttp://three:1/",
                     "http[s]{0,1}://.+:[0-9]{1,5}/", "http://n:9/"),
            Result("http://n:9/y\nhttp://n:9/", 2));
}

TEST(PcreReplace, LeavesTheTextAsItWasWhenItFails) {
  EXPECT_EQ(Replaced("a(b", "(", "x"), Result("a(b", 0));
  const ZelString text("b" + std::string(kLargeBytes, 'a'));
  EXPECT_EQ(Replaced(text, "b|[ab]*[cd]", "x"), Result(text, 0));
  // Ten billion bytes would not fit.
  const ZelString letters(std::string(100'000, 'a'));
  EXPECT_EQ(Replaced(letters, "a", letters), Result(letters, 0));
}

TEST(PcreReplace, TakesTimeInProportionToTheText) {
  const ZelString text(std::string(kLargeBytes / 2, 'a'));
  const auto start = MatchClock::now();
  const auto [result, count] = Replaced(text, "a", "bc");
  EXPECT_LT(MatchClock::now() - start, kLongMatch);
  EXPECT_EQ(count, static_cast<int>(kLargeBytes / 2));
  EXPECT_EQ(result.GetLength(), kLargeBytes);
}

class FindPcreTest : public testing::Test {
 protected:
  int Find(const ZelString& subject, const ZelString& pattern, int start = 0, int ignoreCase = 0,
           int acrossLines = 0) {
    return FindPcre(subject, pattern, captures_, start, ignoreCase, acrossLines);
  }

  ZelVector<ZelString> captures_{"from before"};
};

TEST_F(FindPcreTest, GivesTheTextsOfTheGroupsInOrder) {
  EXPECT_EQ(Find("x data_20240131.zip", "(data)_([0-9]{4})([0-9]{2})"), 1);
  EXPECT_THAT(captures_, ElementsAre("data", "2024", "01"));
  EXPECT_EQ(Find("abc", "b"), 1);
  EXPECT_THAT(captures_, IsEmpty());
}

TEST_F(FindPcreTest, GivesAnEmptyTextForAGroupThatTookNoPart) {
  EXPECT_EQ(Find("b", "(a)?(b)(c)?"), 1);
  EXPECT_THAT(captures_, ElementsAre("", "b", ""));
}

TEST_F(FindPcreTest, LeavesNoCapturesWithoutAMatch) {
  EXPECT_EQ(Find("abc", "(x)"), 0);
  EXPECT_THAT(captures_, IsEmpty());
  captures_ = {"again"};
  EXPECT_EQ(Find("abc", "(x"), 0);
  EXPECT_THAT(captures_, IsEmpty());
}

TEST_F(FindPcreTest, BeginsWhereItIsTold) {
  EXPECT_EQ(Find("a1 a2", "a([0-9])", 1), 1);
  EXPECT_THAT(captures_, ElementsAre("2"));
  EXPECT_EQ(Find("a1", "a", 1), 0);
  EXPECT_EQ(Find("a1", "$", 2), 1);
  // What stands before still counts for assertions.
  EXPECT_EQ(Find("ab", "(?<=a)b", 1), 1);
  EXPECT_EQ(Find("ab", "^b", 1), 0);
}

TEST_F(FindPcreTest, MatchesNothingOutsideOfTheText) {
  EXPECT_EQ(Find("a", "", 2), 0);
  EXPECT_EQ(Find("a", "", -1), 0);
  EXPECT_THAT(captures_, IsEmpty());
}

TEST_F(FindPcreTest, TakesOptionsForCaseAndLines) {
  EXPECT_EQ(Find("ABC", "abc"), 0);
  EXPECT_EQ(Find("ABC", "abc", 0, 1), 1);
  EXPECT_EQ(Find("a\nb", "a.b"), 0);
  EXPECT_EQ(Find("a\nb", "a.b", 0, 0, 1), 1);
  EXPECT_EQ(Find("a\nb", "^b$", 0, 0, 1), 0);
  EXPECT_EQ(Find("a\n", "^a$"), 1);
  EXPECT_EQ(Find("a\n", "^a$", 0, 0, 1), 0);
  EXPECT_EQ(Find("A\r\nb\n", "^a(.*)$", 0, 1, 1), 1);
  EXPECT_THAT(captures_, ElementsAre("\r\nb\n"));
}

TEST_F(FindPcreTest, KeepsBytesThatAreNoCharacter) {
  EXPECT_EQ(Find("ü", "(.)(.)"), 1);
  EXPECT_THAT(captures_, ElementsAre("\xC3", "\xBC"));
}

}  // namespace
