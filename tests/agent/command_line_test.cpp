#include "agent/libZel/command_line.h"

#include <gmock/gmock.h>

using testing::ElementsAre;

TEST(SplitCommandLine, SeparatesAtBlanksAndTabs) {
  EXPECT_THAT(SplitCommandLine("program one  two\t three "),
              ElementsAre("program", "one", "two", "three"));
}

TEST(SplitCommandLine, HasAnEmptyProgramWhenThereIsNone) {
  EXPECT_THAT(SplitCommandLine(""), ElementsAre(""));
  EXPECT_THAT(SplitCommandLine("\"\""), ElementsAre(""));
  EXPECT_THAT(SplitCommandLine("  program"), ElementsAre("", "program"));
}

TEST(SplitCommandLine, KnowsQuotesAloneInTheProgram) {
  EXPECT_THAT(SplitCommandLine(R"("C:\Program Files\x.exe" y)"),
              ElementsAre(R"(C:\Program Files\x.exe)", "y"));
  EXPECT_THAT(SplitCommandLine(R"("C:\dir\" y)"), ElementsAre(R"(C:\dir\)", "y"));
  EXPECT_THAT(SplitCommandLine(R"(C:\"two words"\x.exe y)"),
              ElementsAre(R"(C:\two words\x.exe)", "y"));
}

// The examples that Microsoft gives for the arguments of C programs.
TEST(SplitCommandLine, AgreesWithTheDocumentedExamples) {
  EXPECT_THAT(SplitCommandLine(R"(p "abc" d e)"), ElementsAre("p", "abc", "d", "e"));
  EXPECT_THAT(SplitCommandLine(R"(p a\\b d"e f"g h)"), ElementsAre("p", R"(a\\b)", "de fg", "h"));
  EXPECT_THAT(SplitCommandLine(R"(p a\\\"b c d)"), ElementsAre("p", R"(a\"b)", "c", "d"));
  EXPECT_THAT(SplitCommandLine(R"(p a\\\\"b c" d e)"), ElementsAre("p", R"(a\\b c)", "d", "e"));
  EXPECT_THAT(SplitCommandLine(R"(p a"b"" c d)"), ElementsAre("p", R"(ab" c d)"));
}

TEST(SplitCommandLine, KeepsEmptyArgumentsInQuotes) {
  EXPECT_THAT(SplitCommandLine(R"(p "" "")"), ElementsAre("p", "", ""));
}

TEST(SplitCommandLine, TakesDoubledQuotesWithinQuotesForOne) {
  EXPECT_THAT(SplitCommandLine(R"(p "say ""hello"" now" x)"),
              ElementsAre("p", R"(say "hello" now)", "x"));
  EXPECT_THAT(SplitCommandLine(R"(p """" x)"), ElementsAre("p", R"(")", "x"));
}

TEST(SplitCommandLine, KeepsBackslashesThatEscapeNothing) {
  EXPECT_THAT(SplitCommandLine(R"(p C:\a\b\ \\server\share \)"),
              ElementsAre("p", R"(C:\a\b\)", R"(\\server\share)", R"(\)"));
  EXPECT_THAT(SplitCommandLine(R"(p "C:\a b\\" c)"), ElementsAre("p", R"(C:\a b\)", "c"));
}

TEST(SplitCommandLine, EndsQuotesThatAreLeftOpenWithTheLine) {
  EXPECT_THAT(SplitCommandLine(R"(p "a b)"), ElementsAre("p", "a b"));
  EXPECT_THAT(SplitCommandLine(R"("a b)"), ElementsAre("a b"));
}
