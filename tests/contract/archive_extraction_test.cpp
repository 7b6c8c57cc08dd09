#include <initializer_list>
#include <string>
#include <vector>

#include "tests/contract/module_test.h"

namespace {

using ::testing::Contains;

constexpr const char* kArchive = "C:/b/x.zip";

Outcome Finished(ResultCode code, const char* destination = "C:/b/x") {
  return {code, "{FilePath: String \"C:/b/x.zip\", DestinationPath: String \"" +
                    std::string(destination) + "\", ErrorCode: Int32 " + std::to_string(code) +
                    "}"};
}

class ExtractFile : public ModuleTest {
 protected:
  /// An archive that is there, and a directory for it.
  void AnswerPlaces() {
    host.Answer("FileExists", 1);
    host.Answer("DirExists", 1);
  }
  /// An entry that comes out, or does not; `error` is what extracting answers.
  void AnswerEntry(const char* path, bool comesOut = true, int error = 0) {
    ++count_;
    host.AnswerText("GenericArchive::GetEntryPath", path);
    host.Answer("GenericArchive::ExtractEntry", error);
    host.Answer("FileExists", comesOut);
  }
  void AnswerCounts() {
    for (int i = 0; i <= count_; ++i) host.Answer("GenericArchive::GetFileCount", count_);
  }
  Outcome Extract(const char* destination = "C:/b/x") {
    return Run("CoreUtilsExtractFile",
               Texts({{"FilePath", kArchive}, {"DestinationPath", destination}}));
  }
  /// Where an entry of that path goes.
  std::string Target(const char* entryPath, const char* destination = "C:/b/x") {
    host.ForgetTranscript();
    count_ = 0;
    AnswerPlaces();
    AnswerEntry(entryPath);
    AnswerCounts();
    host.Answer("FileDelete", 0);
    EXPECT_EQ(Extract(destination).code, kSuccess);
    return host.Transcript().at(5);
  }

 private:
  int count_ = 0;
};

std::string Extraction(int index, const std::string& target) {
  return "GenericArchive::ExtractEntry(" + std::to_string(index) + ", \"" + target + "\")";
}

TEST_F(ExtractFile, TakesEveryEntryOutAndDeletesTheArchive) {
  AnswerPlaces();
  AnswerEntry("a.txt");
  AnswerEntry("docs/plan.one.txt");
  AnswerCounts();
  host.Answer("FileDelete", 0);

  EXPECT_EQ(Extract(), Finished(kSuccess));

  EXPECT_THAT(
      host.Transcript(),
      ElementsAre("FileExists(\"C:/b/x.zip\")", "DirExists(\"C:/b/x\")",
                  "GenericArchive(\"C:/b/x.zip\", 1)", "GenericArchive::GetFileCount()",
                  "GenericArchive::GetEntryPath(1)", Extraction(1, "C:/b/x\\a.txt"),
                  "FileExists(\"C:/b/x\\a.txt\")", "GenericArchive::GetFileCount()",
                  "GenericArchive::GetEntryPath(2)", Extraction(2, "C:/b/x\\docs/\\plan.one.txt"),
                  "FileExists(\"C:/b/x\\docs/\\plan.one.txt\")", "GenericArchive::GetFileCount()",
                  "~GenericArchive", "FileDelete(\"C:/b/x.zip\", 0)"));
}

TEST_F(ExtractFile, PutsABackslashBehindTheDestinationAndTheEntrysDirectory) {
  EXPECT_EQ(Target("sub/a.txt"), Extraction(1, "C:/b/x\\sub/\\a.txt"));
  EXPECT_EQ(Target("sub\\deep/a.tar.gz"), Extraction(1, "C:/b/x\\sub\\deep/\\a.tar.gz"));
  EXPECT_EQ(Target("a"), Extraction(1, "C:/b/x\\a"));
  EXPECT_EQ(Target(".profile"), Extraction(1, "C:/b/x\\.profile"));
  EXPECT_EQ(Target("/a.txt"), Extraction(1, "C:/b/x\\/\\a.txt"));
  EXPECT_EQ(Target("sub/"), Extraction(1, "C:/b/x\\sub/\\"));
  EXPECT_EQ(Target(""), Extraction(1, "C:/b/x\\"));
  EXPECT_EQ(Target("100%S.txt"), Extraction(1, "C:/b/x\\100%S.txt"));
}

TEST_F(ExtractFile, LeavesTheDriveOfAnEntryOut) {
  EXPECT_EQ(Target("D:/sub/a.txt"), Extraction(1, "C:/b/x\\/sub/\\a.txt"));
}

TEST_F(ExtractFile, PutsABackslashBehindAnyDestination) {
  EXPECT_EQ(Target("a.txt", "C:/b/x/"), Extraction(1, "C:/b/x/\\a.txt"));
  EXPECT_EQ(Target("a.txt", "C:\\b\\x\\"), Extraction(1, "C:\\b\\x\\\\a.txt"));
  EXPECT_EQ(Target("a.txt", ""), Extraction(1, "\\a.txt"));
}

TEST_F(ExtractFile, FailsWithoutTheArchive) {
  host.Answer("FileExists", 0);

  EXPECT_EQ(Extract(), Finished(kFailure));

  EXPECT_THAT(host.Transcript(), ElementsAre("FileExists(\"C:/b/x.zip\")",
                                             "Error \"The file C:/b/x.zip does not exists!\""));
}

TEST_F(ExtractFile, MakesAMissingDestinationAndSaysSo) {
  host.Answer("FileExists", 1);
  host.Answer("DirExists", 0);
  host.Answer("PathCreate", 1);
  AnswerCounts();
  host.Answer("FileDelete", 0);

  EXPECT_EQ(Extract(), Finished(kSuccess));

  EXPECT_THAT(
      host.Transcript(),
      ElementsAre("FileExists(\"C:/b/x.zip\")", "DirExists(\"C:/b/x\")", "PathCreate(\"C:/b/x\")",
                  "Print \"Destination path for the backup 'C:/b/x' has been created.\"",
                  "GenericArchive(\"C:/b/x.zip\", 1)", "GenericArchive::GetFileCount()",
                  "~GenericArchive", "FileDelete(\"C:/b/x.zip\", 0)"));
}

TEST_F(ExtractFile, FailsWhenTheDestinationCannotBeMade) {
  host.Answer("FileExists", 1);
  host.Answer("DirExists", 0);
  host.Answer("PathCreate", 0);

  EXPECT_EQ(Extract(), Finished(kFailure));

  EXPECT_THAT(
      host.Transcript(),
      ElementsAre("FileExists(\"C:/b/x.zip\")", "DirExists(\"C:/b/x\")", "PathCreate(\"C:/b/x\")",
                  "Error \"The destination path 'C:/b/x' for the backup cannot be "
                  "created!\""));
}

TEST_F(ExtractFile, DeletesAnArchiveWithoutEntries) {
  AnswerPlaces();
  AnswerCounts();
  host.Answer("FileDelete", 0);

  EXPECT_EQ(Extract(), Finished(kSuccess));

  EXPECT_EQ(host.Transcript().back(), "FileDelete(\"C:/b/x.zip\", 0)");
}

TEST_F(ExtractFile, GoesOnBehindAnEntryThatDoesNotComeOutAndKeepsTheArchive) {
  AnswerPlaces();
  AnswerEntry("a", false);
  AnswerEntry("b");
  AnswerEntry("c", false);
  AnswerCounts();

  EXPECT_EQ(Extract(), Finished(kFailure));

  EXPECT_THAT(
      host.Transcript(),
      ElementsAre("FileExists(\"C:/b/x.zip\")", "DirExists(\"C:/b/x\")",
                  "GenericArchive(\"C:/b/x.zip\", 1)", "GenericArchive::GetFileCount()",
                  "GenericArchive::GetEntryPath(1)", Extraction(1, "C:/b/x\\a"),
                  "FileExists(\"C:/b/x\\a\")", "Error \"Error during extracting file: C:/b/x\\a\"",
                  "GenericArchive::GetFileCount()", "GenericArchive::GetEntryPath(2)",
                  Extraction(2, "C:/b/x\\b"), "FileExists(\"C:/b/x\\b\")",
                  "GenericArchive::GetFileCount()", "GenericArchive::GetEntryPath(3)",
                  Extraction(3, "C:/b/x\\c"), "FileExists(\"C:/b/x\\c\")",
                  "Error \"Error during extracting file: C:/b/x\\c\"",
                  "GenericArchive::GetFileCount()", "~GenericArchive"));
}

TEST_F(ExtractFile, CountsADirectoryThatIsNoFileAsFailed) {
  AnswerPlaces();
  AnswerEntry("sub/", false);
  AnswerCounts();

  EXPECT_EQ(Extract(), Finished(kFailure));

  EXPECT_THAT(host.Transcript(),
              Contains("Error \"Error during extracting file: C:/b/x\\sub/\\\""));
}

TEST_F(ExtractFile, AsksWhetherTheFileIsThereWhateverExtractingAnswers) {
  AnswerPlaces();
  AnswerEntry("a", true, 13);
  AnswerEntry("b", true, -1);
  AnswerCounts();
  host.Answer("FileDelete", 0);

  EXPECT_EQ(Extract(), Finished(kSuccess));
}

TEST_F(ExtractFile, CountsAnewBeforeEachEntry) {
  AnswerPlaces();
  AnswerEntry("a");
  AnswerEntry("b");
  for (const int count : {3, 2, 2}) host.Answer("GenericArchive::GetFileCount", count);
  host.Answer("FileDelete", 0);

  EXPECT_EQ(Extract(), Finished(kSuccess));
}

TEST_F(ExtractFile, TakesCountsAsUnsigned) {
  AnswerPlaces();
  AnswerEntry("a");
  host.Answer("GenericArchive::GetFileCount", 0xFFFFFFFF);
  host.Answer("GenericArchive::GetFileCount", 0);
  host.Answer("FileDelete", 0);

  EXPECT_EQ(Extract(), Finished(kSuccess));
}

TEST_F(ExtractFile, SucceedsWithAWarningWhenTheArchiveStays) {
  for (const int error : {13, -1}) {
    host.ForgetTranscript();
    AnswerPlaces();
    AnswerCounts();
    host.Answer("FileDelete", error);

    EXPECT_EQ(Extract(), Finished(kSuccess));

    EXPECT_EQ(host.Transcript().back(), "Warning \"Failed to delete the file 'C:/b/x.zip'.\"");
  }
}

TEST_F(ExtractFile, HoldsNoOtherExtractionUp) {
  AnswerPlaces();
  host.Answer("GenericArchive::GetFileCount", 1);
  host.AnswerText("GenericArchive::GetEntryPath", "a");
  host.AnswerWork("GenericArchive::ExtractEntry", 0, [this] {
    host.ForgetTranscript();
    ExpectNotToWait([this] {
      AnswerPlaces();
      AnswerEntry("b");
      AnswerCounts();
      host.Answer("FileDelete", 0);
      EXPECT_EQ(Extract("E:/other"), Finished(kSuccess, "E:/other"));
    });
    EXPECT_THAT(host.Transcript(), Contains(Extraction(1, "E:/other\\b")));
    host.ForgetTranscript();
    host.Answer("FileExists", 1);
    host.Answer("GenericArchive::GetFileCount", 1);
    host.Answer("FileDelete", 0);
  });

  EXPECT_EQ(Extract(), Finished(kSuccess));

  EXPECT_THAT(host.Transcript(),
              ElementsAre("FileExists(\"C:/b/x\\a\")", "GenericArchive::GetFileCount()",
                          "~GenericArchive", "FileDelete(\"C:/b/x.zip\", 0)"));
}

TEST_F(ExtractFile, TakesMissingParametersAsEmpty) {
  host.Answer("FileExists", 0);

  EXPECT_EQ(Run("CoreUtilsExtractFile", {}), (Outcome{kFailure, "{ErrorCode: Int32 1}"}));

  EXPECT_THAT(host.Transcript(),
              ElementsAre("FileExists(\"\")", "Error \"The file  does not exists!\""));
}

TEST_F(ExtractFile, TakesPathsThatAreNoTextsAsEmpty) {
  ZelContainer params;
  params.SetInt32("FilePath", 1, kNoIndex);
  params.SetString("DestinationPath", "C:/b/x", 0);
  host.Answer("FileExists", 1);
  host.Answer("DirExists", 0);
  host.Answer("PathCreate", 0);

  EXPECT_EQ(Run("CoreUtilsExtractFile", params).code, kFailure);

  EXPECT_THAT(host.Transcript(),
              ElementsAre("FileExists(\"\")", "DirExists(\"\")", "PathCreate(\"\")",
                          "Error \"The destination path '' for the backup cannot be created!\""));
}

TEST_F(ExtractFile, WritesNothingBeforeTheEnd) {
  const ZelContainer params = Texts({{"FilePath", kArchive}, {"DestinationPath", "C:/b/x"}});
  AnswerPlaces();
  AnswerEntry("a");
  AnswerCounts();
  host.Answer("FileDelete", 13);
  EXPECT_THAT(KeysAtEachCall("CoreUtilsExtractFile", params),
              ElementsAre(2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2));

  host.Answer("FileExists", 0);
  EXPECT_THAT(KeysAtEachCall("CoreUtilsExtractFile", params), ElementsAre(2, 2));

  host.Answer("FileExists", 1);
  host.Answer("DirExists", 0);
  host.Answer("PathCreate", 0);
  EXPECT_THAT(KeysAtEachCall("CoreUtilsExtractFile", params), ElementsAre(2, 2, 2, 2));
}

TEST_F(ExtractFile, ReplacesAnErrorCodeThatWasSent) {
  host.Answer("FileExists", 0);

  EXPECT_EQ(Run("CoreUtilsExtractFile", Texts({{"ErrorCode", "x"}, {"Other", "y"}})),
            (Outcome{kFailure, "{ErrorCode: Int32 1, Other: String \"y\"}"}));
}

}  // namespace
