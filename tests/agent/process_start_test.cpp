#include "agent/libZel/process_start.h"

#include <gmock/gmock.h>

#include <string>
#include <string_view>

#include "tests/agent/temporary_directory.h"

using testing::HasSubstr;

namespace {

std::string ReasonOf(const Outcome& outcome) {
  return std::string(outcome.reason.Utf8());
}

}  // namespace

TEST(StartProgram, RefusesANulInTheLine) {
  const Outcome outcome = StartProgram(std::string_view("program\0 argument", 17));
  EXPECT_FALSE(outcome);
  EXPECT_THAT(ReasonOf(outcome), HasSubstr("NUL"));
}

TEST(StartProgram, RefusesALineThatNamesNoProgram) {
  for (const char* line : {"", "\"\"", "\"\" argument", " argument"}) {
    const Outcome outcome = StartProgram(line);
    EXPECT_FALSE(outcome) << line;
    EXPECT_THAT(ReasonOf(outcome), HasSubstr("no program")) << line;
  }
}

TEST(StartProgram, TellsWhyAMissingProgramDoesNotRun) {
  const TemporaryDirectory directory;
  const Outcome outcome = StartProgram("\"" + directory / "missing.exe" + "\" argument");
  EXPECT_GT(outcome.code, 0);
  EXPECT_NE(ReasonOf(outcome), "");

  const Outcome bare = StartProgram("zel-no-such-program-anywhere");
  EXPECT_GT(bare.code, 0);
  EXPECT_NE(ReasonOf(bare), "");
}

TEST(StartProgram, RefusesADirectory) {
  const TemporaryDirectory directory;
  EXPECT_FALSE(StartProgram("\"" + directory / "" + "\""));
}
