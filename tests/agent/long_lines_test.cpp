#include "agent/proxy/long_lines.h"

#include <gtest/gtest.h>

namespace {

constexpr LineLimits kLimits{4, 6};

TEST(LongLines, StayAsTheyAreWhereTheyAreShort) {
  for (const char* const text : {"", "\n", "a b\n\nc d", "abcdef", "abcdef\nabcdef\n"})
    EXPECT_EQ(WithBrokenLines(text, kLimits), text);
}

TEST(LongLines, EndAtTheNextBlankBehindTheFirstLimit) {
  EXPECT_EQ(WithBrokenLines("a bc de fg", kLimits), "a bc\nde fg");
  EXPECT_EQ(WithBrokenLines("a bcd ef gh", kLimits), "a bcd\nef gh");
}

TEST(LongLines, EndAnywhereBehindTheSecondLimit) {
  EXPECT_EQ(WithBrokenLines("abcdefghijklmn", kLimits), "abcdef\nghijkl\nmn");
}

TEST(LongLines, BreakNoCharacter) {
  EXPECT_EQ(WithBrokenLines("abcde\u20ACfg", kLimits), "abcde\u20AC\nfg");
  EXPECT_EQ(WithBrokenLines("abcde\U0001F600fg", kLimits), "abcde\U0001F600\nfg");
}

TEST(LongLines, CountEachLineAnew) {
  EXPECT_EQ(WithBrokenLines("abc\ndefghi jk", kLimits), "abc\ndefghi\njk");
}

}  // namespace
