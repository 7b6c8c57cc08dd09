#include "agent/libZelCore/audit_log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <thread>
#include <vector>

#include "tests/agent/temporary_directory.h"

namespace {

using testing::HasSubstr;
using testing::StartsWith;

class AuditLogTest : public testing::Test {
 protected:
  void WriteLines(int count) {
    AuditLog log(file_);
    for (int i = 0; i < count; ++i)
      ASSERT_TRUE(log.Write({"module", "bob", "127.0.0.1", "line " + std::to_string(i), ""}));
  }
  std::string Replaced(const std::string& from, const std::string& to) const {
    std::string text = ReadFile(file_);
    const size_t position = text.find(from);
    EXPECT_NE(position, std::string::npos);
    return text.replace(position, from.size(), to);
  }

  TemporaryDirectory directory_;
  const std::filesystem::path file_ = directory_.Native() / "audit.jsonl";
};

TEST_F(AuditLogTest, WritesOneJsonLineForEachEvent) {
  {
    AuditLog log(file_);
    log.Write({"core", "agent/a", "::1", "say \"hi\"\nnow", "id-1"});
  }
  const std::string text = ReadFile(file_);
  EXPECT_THAT(text, StartsWith("{\"time\":\"20"));
  EXPECT_THAT(text, HasSubstr("\"module\":\"core\",\"user\":\"agent/a\",\"address\":\"::1\","
                              "\"text\":\"say \\\"hi\\\"\\nnow\",\"request\":\"id-1\","
                              "\"previous\":\"" +
                              std::string(64, '0') + "\"}\n"));
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1);
}

TEST_F(AuditLogTest, StaysWholeWithNamesThatAreNotUtf8) {
  {
    AuditLog log(file_);
    EXPECT_TRUE(log.Write({"core", "agent/\xFF", "::1", "caf\xE9", ""}));
    EXPECT_TRUE(log.Write({"core", "bob", "::1", "caf\xC3\xA9", ""}));
  }
  EXPECT_THAT(ReadFile(file_), HasSubstr("\"user\":\"agent/\uFDD0dcff\""));
  const AuditVerdict verdict = VerifyAuditLog(file_);
  EXPECT_TRUE(verdict.isWhole) << verdict.reason;
  EXPECT_EQ(verdict.lines, 2u);
}

TEST_F(AuditLogTest, ContinuesItsChainAfterARestart) {
  WriteLines(3);
  WriteLines(2);
  const AuditVerdict verdict = VerifyAuditLog(file_);
  EXPECT_TRUE(verdict.isWhole) << verdict.reason;
  EXPECT_EQ(verdict.lines, 5u);
}

TEST_F(AuditLogTest, ContinuesAfterALineLongerThanOneReadBlock) {
  {
    AuditLog log(file_);
    log.Write({"m", "u", "a", std::string(300000, 'x'), ""});
  }
  WriteLines(1);
  EXPECT_TRUE(VerifyAuditLog(file_).isWhole);
}

TEST_F(AuditLogTest, FindsAChangedLine) {
  WriteLines(4);
  WriteFile(file_, Replaced("line 1", "line 9"));
  const AuditVerdict verdict = VerifyAuditLog(file_);
  EXPECT_FALSE(verdict.isWhole);
  EXPECT_EQ(verdict.badLine, 3u);
  EXPECT_THAT(verdict.reason, HasSubstr("does not follow from line 2"));
}

TEST_F(AuditLogTest, FindsAMissingFirstLineAndAMissingMiddleOne) {
  WriteLines(4);
  const std::string whole = ReadFile(file_);
  const size_t first = whole.find('\n') + 1;
  const size_t second = whole.find('\n', first) + 1;
  WriteFile(file_, whole.substr(first));
  EXPECT_EQ(VerifyAuditLog(file_).badLine, 1u);
  WriteFile(file_, whole.substr(0, first) + whole.substr(second));
  EXPECT_EQ(VerifyAuditLog(file_).badLine, 2u);
}

TEST_F(AuditLogTest, FindsALineThatIsNoneAndAFileThatIsMissing) {
  WriteLines(2);
  WriteFile(file_, ReadFile(file_) + "garbage\n");
  EXPECT_EQ(VerifyAuditLog(file_).badLine, 3u);
  const AuditVerdict missing = VerifyAuditLog(directory_.Native() / "none");
  EXPECT_FALSE(missing.isWhole);
  EXPECT_THAT(missing.reason, HasSubstr("cannot read"));
}

TEST_F(AuditLogTest, KeepsATornLineAndSaysSoInTheNextOne) {
  WriteLines(2);
  const std::string whole = ReadFile(file_);
  const std::string torn = whole + "{\"time\":\"2026";
  WriteFile(file_, torn);
  EXPECT_EQ(VerifyAuditLog(file_).badLine, 3u) << "nothing says yet that it is torn";

  WriteLines(2);
  EXPECT_THAT(ReadFile(file_), StartsWith(torn + "\n"));
  EXPECT_THAT(ReadFile(file_), HasSubstr("\"torn\":true"));
  const AuditVerdict verdict = VerifyAuditLog(file_);
  EXPECT_TRUE(verdict.isWhole) << verdict.reason;
  EXPECT_EQ(verdict.lines, 5u);
}

TEST_F(AuditLogTest, DoesNotExcuseAChangedTornLine) {
  WriteLines(1);
  WriteFile(file_, ReadFile(file_) + "{\"torn part");
  WriteLines(1);
  WriteFile(file_, Replaced("torn part", "torn parT"));
  EXPECT_EQ(VerifyAuditLog(file_).badLine, 3u);
}

TEST_F(AuditLogTest, KeepsTheChainWhenManyThreadsWrite) {
  {
    AuditLog log(file_);
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
      threads.emplace_back([&log] {
        for (int j = 0; j < 50; ++j) log.Write({"m", "u", "a", "t", ""});
      });
    }
    for (std::thread& thread : threads) thread.join();
  }
  const AuditVerdict verdict = VerifyAuditLog(file_);
  EXPECT_TRUE(verdict.isWhole) << verdict.reason;
  EXPECT_EQ(verdict.lines, 400u);
}

// --- Rotation
// --------------------------------------------------------------------------------------

class AuditRotationTest : public AuditLogTest {
 protected:
  static constexpr uint64_t kRotateBytes = 600;  // three lines

  void Write(int count, uint32_t keptFiles = 0) {
    AuditLog log(file_, {kRotateBytes, keptFiles});
    for (int i = 0; i < count; ++i) ASSERT_TRUE(log.Write({"module", "bob", "::1", "text", ""}));
  }
  std::filesystem::path Rotated(int number) const {
    return directory_.Native() / ("audit." + std::to_string(number) + ".jsonl");
  }
  static void Change(const std::filesystem::path& file) {
    std::string text = ReadFile(file);
    text.replace(text.find("bob"), 3, "eve");
    WriteFile(file, text);
  }
};

TEST_F(AuditRotationTest, GoesOnInAFurtherFileWithTheChain) {
  Write(10);
  for (const auto& file : {file_, Rotated(1), Rotated(2)})
    EXPECT_LE(std::filesystem::file_size(file), kRotateBytes);
  EXPECT_THAT(ReadFile(Rotated(2)), HasSubstr("\"file\":2,"));
  const AuditVerdict verdict = VerifyAuditLog(file_);
  EXPECT_TRUE(verdict.isWhole) << verdict.reason;
  EXPECT_EQ(verdict.lines, 10u);
  EXPECT_GE(verdict.files, 4u);
  EXPECT_EQ(verdict.firstFile, 1u);
}

TEST_F(AuditRotationTest, GoesOnAfterARestartInWhateverStep) {
  for (int i = 0; i < 20; ++i) Write(1);
  // As when the agent was killed between the renaming and the next line.
  std::filesystem::rename(file_, Rotated(static_cast<int>(VerifyAuditLog(file_).files)));
  Write(2);
  const AuditVerdict verdict = VerifyAuditLog(file_);
  EXPECT_TRUE(verdict.isWhole) << verdict.badFile << verdict.reason;
  EXPECT_EQ(verdict.lines, 22u);
}

TEST_F(AuditRotationTest, FindsAChangeInEachFileAndAcrossThem) {
  Write(10);
  const std::string first = ReadFile(Rotated(1));
  Change(Rotated(1));
  EXPECT_EQ(VerifyAuditLog(file_).badFile, "audit.1.jsonl");
  EXPECT_EQ(VerifyAuditLog(file_).badLine, 2u);

  // The last line of a file.
  WriteFile(Rotated(1), first.substr(0, first.size() - 3) + " }\n");
  EXPECT_EQ(VerifyAuditLog(file_).badFile, "audit.1.jsonl") << "it is no line any more";
  std::string changed = first;
  changed.replace(changed.rfind("bob"), 3, "eve");
  WriteFile(Rotated(1), changed);
  const AuditVerdict verdict = VerifyAuditLog(file_);
  EXPECT_EQ(verdict.badFile, "audit.2.jsonl");
  EXPECT_EQ(verdict.badLine, 1u);
  EXPECT_THAT(verdict.reason, HasSubstr("the file before"));
}

TEST_F(AuditRotationTest, FindsAFileThatIsMissingOrHasTheNumberOfAnother) {
  Write(12);
  std::filesystem::rename(Rotated(2), directory_.Native() / "away");
  EXPECT_THAT(VerifyAuditLog(file_).reason, HasSubstr("cannot read"));
  EXPECT_THAT(VerifyAuditLog(file_).reason, HasSubstr("audit.2.jsonl"));
  std::filesystem::rename(Rotated(3), Rotated(2));
  EXPECT_EQ(VerifyAuditLog(file_).badFile, "audit.2.jsonl");
}

TEST_F(AuditRotationTest, FindsThatARotatedFileWasEmptied) {
  Write(4);
  ASSERT_TRUE(VerifyAuditLog(file_).isWhole);
  WriteFile(Rotated(1), "");
  // With nothing behind it either no chain shows the loss.
  WriteFile(file_, "");
  for (const std::filesystem::path& asked : {file_, Rotated(1)}) {
    const AuditVerdict verdict = VerifyAuditLog(asked);
    EXPECT_FALSE(verdict.isWhole);
    EXPECT_EQ(verdict.lines, 0u);
    EXPECT_EQ(verdict.badFile, "audit.1.jsonl");
    EXPECT_EQ(verdict.badLine, 1u);
    EXPECT_THAT(verdict.reason, HasSubstr("empty"));
  }
  Write(2);
  EXPECT_FALSE(VerifyAuditLog(file_).isWhole) << "lines of later do not mend it";
}

TEST_F(AuditRotationTest, TellsThatTheBeginningIsElsewhere) {
  Write(12);
  std::filesystem::remove(Rotated(1));
  const AuditVerdict verdict = VerifyAuditLog(file_);
  EXPECT_TRUE(verdict.isWhole) << verdict.reason;
  EXPECT_EQ(verdict.firstFile, 2u);
  EXPECT_TRUE(VerifyAuditLog(Rotated(3)).isWhole);
  EXPECT_EQ(VerifyAuditLog(Rotated(3)).files, 1u);
}

TEST_F(AuditRotationTest, DeletesOldFilesWhereItIsToldTo) {
  Write(30, 2);
  const AuditVerdict verdict = VerifyAuditLog(file_);
  EXPECT_TRUE(verdict.isWhole) << verdict.reason;
  EXPECT_EQ(verdict.files, 3u);
  EXPECT_GT(verdict.firstFile, 2u);
  EXPECT_FALSE(std::filesystem::exists(Rotated(1)));
}

TEST_F(AuditRotationTest, ReplacesNoFileThatIsInItsWay) {
  Write(2);
  WriteFile(Rotated(1), "somebody's own");
  {
    AuditLog log(file_, {1, 0});
    EXPECT_TRUE(log.Write({"module", "bob", "::1", "text", ""}));
  }
  EXPECT_EQ(ReadFile(Rotated(1)), "somebody's own");
  std::filesystem::remove(Rotated(1));
  EXPECT_EQ(VerifyAuditLog(file_).lines, 3u) << "the file grew on";
}

TEST_F(AuditRotationTest, TakesNoCopyWithADateForAFileOfItsTrail) {
  Write(12);
  const auto copy = directory_.Native() / "audit.20261122.jsonl";
  std::filesystem::copy_file(file_, copy);
  Write(6, 1000);
  EXPECT_TRUE(std::filesystem::exists(Rotated(1))) << "a thousand are to be kept";

  // As when the agent was killed between the renaming and the next line.
  std::filesystem::remove(copy);
  const int number = static_cast<int>(VerifyAuditLog(file_).files);
  std::filesystem::rename(file_, Rotated(number));
  std::filesystem::copy_file(Rotated(1), copy);
  Write(2, 1000);

  std::filesystem::remove(copy);
  const AuditVerdict verdict = VerifyAuditLog(file_);
  EXPECT_TRUE(verdict.isWhole) << verdict.badFile << ": " << verdict.reason;
  EXPECT_EQ(verdict.lines, 20u);
}

TEST_F(AuditRotationTest, FindsATrailWholeThatGoesOnMeanwhile) {
  Write(1);
  std::atomic<bool> isDone = false;
  std::thread writer([&] {
    Write(600);
    isDone = true;
  });
  AuditVerdict verdict;
  do verdict = VerifyAuditLog(file_);
  while (verdict.isWhole && !isDone);
  writer.join();
  EXPECT_TRUE(verdict.isWhole) << verdict.badFile << ", line " << verdict.badLine << ": "
                               << verdict.reason;
  EXPECT_EQ(VerifyAuditLog(file_).lines, 601u);
}

TEST_F(AuditRotationTest, FinishesATornLineFirst) {
  Write(2);
  WriteFile(file_, ReadFile(file_) + "{\"torn part");
  Write(8);
  const AuditVerdict verdict = VerifyAuditLog(file_);
  EXPECT_TRUE(verdict.isWhole) << verdict.badFile << verdict.reason;
  EXPECT_EQ(verdict.lines, 11u);
}

}  // namespace
