#include "agent/libZel/platform/posix/process_files.h"

#include <gtest/gtest.h>

#include <string>

namespace {

constexpr std::string_view kLine =
    "1234 (sleep) S 77 1234 1234 0 -1 4194304 110 0 0 0 21 34 55 89 20 0 3 0 98765 2539520 400 "
    "18446744073709551615 1 1 0 0 0 0 0 0 0 0 0 0 17 1 0 0 0 0 0 0 0 0 0 0 0 0 0\n";

std::string WithCommand(std::string_view command) {
  return "1234 (" + std::string(command) + std::string(kLine.substr(kLine.find(')')));
}

TEST(ParseProcessStat, FindsEachField) {
  const ProcessStat stat = ParseProcessStat(kLine);
  EXPECT_EQ(stat.command, "sleep");
  EXPECT_EQ(stat.parentId, 77u);
  EXPECT_FALSE(stat.isKernelThread);
  EXPECT_EQ(stat.threadCount, 3u);
  EXPECT_EQ(stat.cpuTicks, 55u);
  EXPECT_EQ(stat.startTicks, 98765u);
  EXPECT_EQ(stat.virtualBytes, 2539520u);
  EXPECT_EQ(stat.residentPages, 400u);
}

TEST(ParseProcessStat, KnowsTheKernelsThreads) {
  const ProcessStat stat = ParseProcessStat(
      "2 (kthreadd) S 0 0 0 0 -1 2129984 0 0 0 0 0 0 0 0 20 0 1 0 9 0 0 18446744073709551615 0\n");
  EXPECT_TRUE(stat.isKernelThread);
  EXPECT_EQ(stat.command, "kthreadd");
  EXPECT_EQ(stat.virtualBytes, 0u);
}

TEST(ParseProcessStat, TakesCommandsWithBlanksParenthesesAndLineEnds) {
  for (const char* command : {"a b", "a) R 1 (b", "((", "))", ")", "(", "", "1 (x) S 5", "a\nb"}) {
    const std::string line = WithCommand(command);
    const ProcessStat stat = ParseProcessStat(line);
    EXPECT_EQ(stat.command, command);
    EXPECT_EQ(stat.parentId, 77u) << command;
    EXPECT_EQ(stat.residentPages, 400u) << command;
  }
}

TEST(ParseProcessStat, IsEmptyWithoutACommand) {
  for (const char* line : {"", "1234", ")(", ")", "(", "1234 sleep S 77 1 1 1"}) {
    const ProcessStat stat = ParseProcessStat(line);
    EXPECT_EQ(stat.command, "") << line;
    EXPECT_EQ(stat.parentId, 0u) << line;
  }
}

TEST(ParseProcessStat, KeepsWhatALineCutShortStillHolds) {
  const std::string line(kLine);
  for (size_t length = 0; length <= line.size(); ++length) {
    const ProcessStat stat = ParseProcessStat(std::string_view(line).substr(0, length));
    if (length >= line.find(" 1234 1234")) {
      EXPECT_EQ(stat.parentId, 77u) << length;
    }
    if (length < line.find("98765")) {
      EXPECT_EQ(stat.startTicks, 0u) << length;
    }
  }
}

TEST(ParseProcessStat, TakesOddNumbersAsZero) {
  const ProcessStat stat = ParseProcessStat(
      "1 (x) S -5 a b c d e f g h i 99999999999999999999999 7 k l m n 4294967296 p -1 q \xff\xfe");
  EXPECT_EQ(stat.parentId, 0u);
  EXPECT_EQ(stat.cpuTicks, 7u);
  EXPECT_EQ(stat.threadCount, 0u);
  EXPECT_EQ(stat.startTicks, 0u);
  EXPECT_EQ(stat.residentPages, 0u);
}

TEST(ExecutableOf, DropsTheRemarkOfADeletedFile) {
  EXPECT_EQ(ExecutableOf("/usr/bin/sleep"), "/usr/bin/sleep");
  EXPECT_EQ(ExecutableOf("/usr/bin/sleep (deleted)"), "/usr/bin/sleep");
  EXPECT_EQ(ExecutableOf("/opt/a (deleted)/b"), "/opt/a (deleted)/b");
  EXPECT_EQ(ExecutableOf(""), "");
}

TEST(ThreadGroupOf, FindsItsLine) {
  EXPECT_EQ(ThreadGroupOf("Name:\tx\nUmask:\t0022\nState:\tS (sleeping)\nTgid:\t512\nNgid:\t0\n"),
            512u);
  EXPECT_EQ(ThreadGroupOf("Name:\tTgid:\nTgid:\t7"), 7u);
}

TEST(ThreadGroupOf, IsZeroWhereItIsNotTold) {
  for (const char* status : {"", "Tgid:\t5\n", "Name:\tx\nTgid:", "Name:\tx\nTgid:\tx\n"}) {
    EXPECT_EQ(ThreadGroupOf(status), 0u) << status;
  }
}

}  // namespace
