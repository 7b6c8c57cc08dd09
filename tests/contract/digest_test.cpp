#include "tests/contract/module_test.h"

namespace {

constexpr const char* kDigest = "5d41402abc4b2a76b9719d911017c592";

using FileMD5 = ModuleTest;

TEST_F(FileMD5, AnswersTheDigestBesideTheParameter) {
  host.AnswerText("FileMd5", kDigest);

  EXPECT_EQ(Run("CoreUtilsFileMD5", Texts({{"FilePath", "C:\\in\\a.txt"}})),
            (Outcome{kSuccess, "{FilePath: String \"C:\\in\\a.txt\", FileChecksum: String \"" +
                                   std::string(kDigest) + "\"}"}));

  EXPECT_THAT(host.Transcript(), ElementsAre("FileMd5(\"C:\\in\\a.txt\")"));
}

TEST_F(FileMD5, AsksNoPrivacyPolicyAndLogsNothing) {
  host.AnswerText("FileMd5", kDigest);

  Run("CoreUtilsFileMD5", Texts({{"FilePath", "C:/a"}, {"DACurrentConsoleUser", "maria"}}));

  EXPECT_THAT(host.Transcript(), ElementsAre("FileMd5(\"C:/a\")"));
}

TEST_F(FileMD5, DigestsTheEmptyPathWithoutAParameter) {
  host.AnswerText("FileMd5", "");

  EXPECT_EQ(Run("CoreUtilsFileMD5", {}), (Outcome{kSuccess, "{FileChecksum: String \"\"}"}));

  EXPECT_THAT(host.Transcript(), ElementsAre("FileMd5(\"\")"));
}

TEST_F(FileMD5, ReadsNoOtherKey) {
  host.AnswerText("FileMd5", "");

  Run("CoreUtilsFileMD5", Texts({{"Path", "C:/a"}}));

  EXPECT_THAT(host.Transcript(), ElementsAre("FileMd5(\"\")"));
}

TEST_F(FileMD5, DigestsTheEmptyPathForAListOrANumber) {
  for (const ZelContainer& params : ListsAndNumbers({"FilePath"})) {
    host.ForgetTranscript();
    host.AnswerText("FileMd5", "");

    EXPECT_EQ(Run("CoreUtilsFileMD5", params).code, kSuccess);

    EXPECT_THAT(host.Transcript(), ElementsAre("FileMd5(\"\")"));
  }
}

TEST_F(FileMD5, SucceedsWithoutADigest) {
  host.AnswerText("FileMd5", "");

  EXPECT_EQ(Run("CoreUtilsFileMD5", Texts({{"FilePath", "C:/no"}})),
            (Outcome{kSuccess, "{FilePath: String \"C:/no\", FileChecksum: String \"\"}"}));
}

TEST_F(FileMD5, PassesTheDigestOnAsItIs) {
  host.AnswerText("FileMd5", "AB-cd");

  EXPECT_EQ(Run("CoreUtilsFileMD5", {}), (Outcome{kSuccess, "{FileChecksum: String \"AB-cd\"}"}));
}

TEST_F(FileMD5, ReplacesADigestThatWasSentIn) {
  host.AnswerText("FileMd5", kDigest);

  EXPECT_EQ(Run("CoreUtilsFileMD5", Texts({{"FileChecksum", "mine"}})),
            (Outcome{kSuccess, "{FileChecksum: String \"" + std::string(kDigest) + "\"}"}));
}

}  // namespace
