#include "agent/libZelCore/audit_log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
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

}  // namespace
