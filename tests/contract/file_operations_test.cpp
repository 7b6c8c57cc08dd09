#include <map>
#include <string>
#include <utility>
#include <vector>

#include "tests/contract/module_test.h"

namespace {

using ::testing::AllOf;
using ::testing::AnyOf;
using ::testing::Each;
using ::testing::Ge;
using ::testing::SizeIs;

constexpr const char* kSource = "C:\\in\\a.txt";
constexpr const char* kDestination = "C:\\out\\b.txt";
constexpr const char* kUrl = "http://files.example/a.txt";

ZelContainer Pair(const char* source, const char* destination) {
  return Texts({{"SourcePath", source},
                {"DestinationPath", destination},
                {"DACurrentConsoleUser", "maria"}});
}

ZelContainer Single(const char* path) {
  return Texts({{"Path", path}, {"DACurrentConsoleUser", "maria"}});
}

ZelContainer SingleRecursive(const char* path, bool isRecursive) {
  ZelContainer params = Single(path);
  params.SetBool("Recursive", isRecursive, kNoIndex);
  return params;
}

// ---- What the actions share ----

/// An action with what the host answers when all goes well.
struct FileAction {
  const char* name;
  bool takesPair;
  std::vector<std::pair<const char*, int>> answers;
  std::vector<int32_t> verdicts;
  const char* container = "{}";
};

const FileAction kFileActions[] = {
    {"CoreUtilsCopyFile", true, {{"FileExists", 1}, {"FileCopyNet", 0}}, {kReadable, kWritable}},
    {"CoreUtilsRenameFile",
     true,
     {{"FileExists", 1}, {"FileRenameNet", 0}},
     {kReadable, kWritable}},
    {"CoreUtilsDeleteFile", false, {{"FileExists", 1}, {"FileDeleteNet", 0}}, {kWritable}},
    {"CoreUtilsGetFileSize",
     false,
     {{"FileExists", 1}, {"FileGetSize", 5}},
     {kReadable},
     "{Result: Int32 5}"},
    {"CoreUtilsDirCreate", false, {{"DirExists", 0}, {"DirCreate", 1}}, {kWritable}},
    {"CoreUtilsDirRename", true, {{"DirRename", 1}, {"DirRename", 1}}, {kReadable, kWritable}},
    {"CoreUtilsDirDelete", false, {{"DirDelete", 1}}, {kWritable}},
};

void AnswerAll(FakeHost& host, const FileAction& action) {
  for (const auto& [function, answer] : action.answers) host.Answer(function, answer);
  for (const int32_t verdict : action.verdicts) AnswerVerdict(host, verdict);
}

using FileActions = ModuleTest;

TEST_F(FileActions, DropKeysThatTheyDoNotKnow) {
  for (const FileAction& action : kFileActions) {
    AnswerAll(host, action);
    ZelContainer params = action.takesPair ? Pair(kSource, kDestination) : Single(kSource);
    params.SetString("Result", "mine", kNoIndex);
    params.SetInt32("ErrorCode", 7, kNoIndex);
    params.SetInt32("Other", 5, 0);
    params.SetContainer("HttpProtocolRequestInfo", Texts({{"HttpProtocolRequestAddress", "x"}}),
                        kNoIndex);

    EXPECT_EQ(Run(action.name, params), (Outcome{kSuccess, action.container})) << action.name;
  }
}

TEST_F(FileActions, WriteNothingButTheirResultOnRefusal) {
  for (const FileAction& action : kFileActions) {
    for (const auto& [function, answer] : action.answers) {
      if (std::string(function).ends_with("Exists")) host.Answer(function, answer);
    }
    AnswerVerdict(host, kForbidden);
    ZelContainer params = action.takesPair ? Pair(kSource, kDestination) : Single(kSource);
    params.SetString("Other", "mine", kNoIndex);

    const Outcome outcome = Run(action.name, params);

    EXPECT_EQ(outcome.code, kAccessRefused) << action.name;
    EXPECT_THAT(outcome.container, AnyOf("{}", "{Result: Int32 0}", "{Result: Bool false}"))
        << action.name;
  }
}

TEST_F(FileActions, TakeTheParametersOutBeforeTheirFirstCall) {
  for (const FileAction& action : kFileActions) {
    AnswerAll(host, action);
    const ZelContainer params = action.takesPair ? Pair(kSource, kDestination) : Single(kSource);

    EXPECT_THAT(KeysAtEachCall(action.name, params), AllOf(SizeIs(Ge(2)), Each(0))) << action.name;
  }
}

TEST_F(FileActions, AreRefusedWhenThePolicyCannotBeAsked) {
  const std::map<std::string, const char*> results = {{"CoreUtilsGetFileSize", "{Result: Int32 0}"},
                                                      {"CoreUtilsDirCreate", "{}"}};
  for (const FileAction& action : kFileActions) {
    for (const auto& [function, answer] : action.answers) {
      if (std::string(function).ends_with("Exists")) host.Answer(function, answer);
    }
    host.AnswerInvocation(kInvokeUnknownAction);
    const auto found = results.find(action.name);

    EXPECT_EQ(Run(action.name, action.takesPair ? Pair(kSource, kDestination) : Single(kSource)),
              (Outcome{12, found == results.end() ? "{Result: Bool false}" : found->second}))
        << action.name;
  }
}

TEST_F(FileActions, TakeAbsentParametersAsEmptyTexts) {
  const std::pair<const char*, std::vector<std::string>> transcripts[] = {
      {"CoreUtilsRenameFile",
       {"Detail \"Renaming file  to \"", "FileExists(\"\")", PrivacyCheck("", "", "Read"),
        PrivacyCheck("", "", "Write"), "FileRenameNet(\"\", \"\")"}},
      {"CoreUtilsDeleteFile",
       {"Detail \"Deleting file \"", "FileExists(\"\")", PrivacyCheck("", "", "Write"),
        "FileDeleteNet(\"\", false)"}},
      {"CoreUtilsGetFileSize",
       {"Detail \"Get size for file \"", "FileExists(\"\")", PrivacyCheck("", "", "Read"),
        "FileGetSize(\"\")"}},
      {"CoreUtilsDirCreate",
       {"Detail \"Creating directory \"", "DirExists(\"\")", PrivacyCheck("", "", "Write"),
        "DirCreate(\"\")"}},
      {"CoreUtilsDirRename",
       {"Detail \"Renaming directory  to \"", PrivacyCheck("", "", "Read"),
        PrivacyCheck("", "", "Write"), "DirRename(\"\", \"\")", "DirRename(\"\", \"\")"}},
      {"CoreUtilsDirDelete", {PrivacyCheck("", "", "Write"), "DirDelete(\"\", 1, 0)"}},
  };
  std::vector<ZelContainer> containers =
      ListsAndNumbers({"Path", "SourcePath", "DestinationPath", "DACurrentConsoleUser"});
  containers.emplace_back();
  for (const FileAction& action : kFileActions) {
    for (const auto& [name, transcript] : transcripts) {
      if (std::string(name) != action.name) continue;
      for (const ZelContainer& params : containers) {
        host.ForgetTranscript();
        AnswerAll(host, action);

        EXPECT_EQ(Run(name, params), (Outcome{kSuccess, action.container})) << name;
        EXPECT_EQ(host.Transcript(), transcript) << name;
      }
    }
  }
}

TEST_F(FileActions, LogPercentSignsAsText) {
  const char* odd = "C:/100%S %u%%";
  const std::pair<const char*, const char*> lines[] = {
      {"CoreUtilsCopyFile", "Detail \"Copying file C:/100%S %u%% to C:/100%S %u%%\""},
      {"CoreUtilsRenameFile", "Detail \"Renaming file C:/100%S %u%% to C:/100%S %u%%\""},
      {"CoreUtilsDeleteFile", "Detail \"Deleting file C:/100%S %u%%\""},
      {"CoreUtilsGetFileSize", "Detail \"Get size for file C:/100%S %u%%\""},
      {"CoreUtilsDirCreate", "Detail \"Creating directory C:/100%S %u%%\""},
      {"CoreUtilsDirRename", "Detail \"Renaming directory C:/100%S %u%% to C:/100%S %u%%\""},
  };
  ZelContainer params = Pair(odd, odd);
  params.SetString("Path", odd, kNoIndex);
  // The first question is answered in the way that ends the action.
  for (int i = 0; i < 4; ++i) host.Answer("FileExists", 0);
  host.Answer("DirExists", 1);
  AnswerVerdict(host, kForbidden);
  for (const auto& [action, line] : lines) {
    host.ForgetTranscript();
    Run(action, params);
    EXPECT_EQ(host.Transcript().front(), line);
  }
}

TEST_F(FileActions, TakeAnyNonZeroAnswerAsExisting) {
  for (const int exists : {2, -1, 0x100}) {
    for (const FileAction& action : kFileActions) {
      if (std::string(action.answers.front().first) != "FileExists") continue;
      FileAction odd = action;
      odd.answers.front().second = exists;
      AnswerAll(host, odd);
      const ZelContainer params = action.takesPair ? Pair(kSource, kDestination) : Single(kSource);

      EXPECT_EQ(Run(action.name, params), (Outcome{kSuccess, action.container})) << action.name;
    }
  }
}

// ---- Copy a file ----

using CopyFile = ModuleTest;

TEST_F(CopyFile, CopiesTheSourceToTheDestination) {
  host.Answer("FileExists", 1);
  AnswerVerdict(host, kReadable);
  AnswerVerdict(host, kWritable);
  host.Answer("FileCopyNet", 0);

  EXPECT_EQ(Run("CoreUtilsCopyFile", Pair(kSource, kDestination)), (Outcome{kSuccess, "{}"}));

  EXPECT_THAT(host.Transcript(),
              ElementsAre("Detail \"Copying file C:\\in\\a.txt to C:\\out\\b.txt\"",
                          "FileExists(\"C:\\in\\a.txt\")", PrivacyCheck(kSource, "maria", "Read"),
                          PrivacyCheck(kDestination, "maria", "Write"),
                          "FileCopyNet(\"C:\\in\\a.txt\", \"C:\\out\\b.txt\", 0)"));
}

TEST_F(CopyFile, AnswersOneWhenTheHostFails) {
  for (const int error : {1, -1, 5, 0x7fffffff}) {
    host.Answer("FileExists", 1);
    AnswerVerdict(host, kReadable);
    AnswerVerdict(host, kWritable);
    host.Answer("FileCopyNet", error);

    EXPECT_EQ(Run("CoreUtilsCopyFile", Pair(kSource, kDestination)), (Outcome{kFailure, "{}"}));
  }
}

TEST_F(CopyFile, TellsAMissingSourceBeforeAskingThePolicy) {
  host.Answer("FileExists", 0);

  EXPECT_EQ(Run("CoreUtilsCopyFile", Pair(kSource, kDestination)),
            (Outcome{14001, "{Result: Int32 0}"}));

  EXPECT_THAT(host.Transcript(),
              ElementsAre("Detail \"Copying file C:\\in\\a.txt to C:\\out\\b.txt\"",
                          "FileExists(\"C:\\in\\a.txt\")"));
}

TEST_F(CopyFile, DoesNotAskForTheDestinationWhenTheSourceIsRefused) {
  host.Answer("FileExists", 1);
  AnswerVerdict(host, kWritable);

  EXPECT_EQ(Run("CoreUtilsCopyFile", Pair(kSource, kDestination)),
            (Outcome{12, "{Result: Bool false}"}));

  EXPECT_THAT(host.Transcript(),
              ElementsAre("Detail \"Copying file C:\\in\\a.txt to C:\\out\\b.txt\"",
                          "FileExists(\"C:\\in\\a.txt\")", PrivacyCheck(kSource, "maria", "Read")));
}

TEST_F(CopyFile, RefusesADestinationThatMayOnlyBeRead) {
  host.Answer("FileExists", 1);
  AnswerVerdict(host, kReadable);
  AnswerVerdict(host, kReadable);

  EXPECT_EQ(Run("CoreUtilsCopyFile", Pair(kSource, kDestination)),
            (Outcome{12, "{Result: Bool false}"}));
  EXPECT_EQ(host.Transcript().back(), PrivacyCheck(kDestination, "maria", "Write"));
}

TEST_F(CopyFile, PicksAFreeNameBesideTheSource) {
  const char* path = "C:\\a\\b.txt";
  host.Answer("FileExists", 1);
  AnswerVerdict(host, kReadable);
  AnswerVerdict(host, kWritable);
  host.Answer("FileExists", 1);
  host.Answer("FileExists", 0);
  host.Answer("FileCopyNet", 0);

  EXPECT_EQ(Run("CoreUtilsCopyFile", Pair(path, path)), (Outcome{kSuccess, "{}"}));

  EXPECT_THAT(host.Transcript(),
              ElementsAre("Detail \"Copying file C:\\a\\b.txt to C:\\a\\b.txt\"",
                          "FileExists(\"C:\\a\\b.txt\")", PrivacyCheck(path, "maria", "Read"),
                          PrivacyCheck(path, "maria", "Write"), "FileExists(\"C:\\a\\b(1).txt\")",
                          "FileExists(\"C:\\a\\b(2).txt\")",
                          "FileCopyNet(\"C:\\a\\b.txt\", \"C:\\a\\b(2).txt\", 0)"));
}

TEST_F(CopyFile, TakesTheFirstFreeNumberHoweverManyAreTaken) {
  for (const int taken : {0, 1, 2, 9, 10, 99, 70000}) {
    host.ForgetTranscript();
    host.Answer("FileExists", 1);
    AnswerVerdict(host, kReadable);
    AnswerVerdict(host, kWritable);
    for (int i = 0; i < taken; ++i) host.Answer("FileExists", 1);
    host.Answer("FileExists", 0);
    host.Answer("FileCopyNet", 0);

    EXPECT_EQ(Run("CoreUtilsCopyFile", Pair("C:/a/b.txt", "C:/a/b.txt")),
              (Outcome{kSuccess, "{}"}));
    EXPECT_EQ(host.Transcript().back(),
              "FileCopyNet(\"C:/a/b.txt\", \"C:/a/b(" + std::to_string(taken + 1) + ").txt\", 0)");
  }
}

TEST_F(CopyFile, PutsTheNumberBeforeTheExtensionAlone) {
  const std::pair<const char*, const char*> names[] = {
      {"C:\\data\\report.txt", "C:\\data\\report(1).txt"},
      {"C:/data/report", "C:/data/report(1)"},
      {"C:/data.old/report", "C:/data.old/report(1)"},
      {"C:/data/report.tar.gz", "C:/data/report.tar(1).gz"},
      {"C:/data/.profile", "C:/data/.profile(1)"},
      {"\\\\server\\share\\report.txt", "\\\\server\\share\\report(1).txt"},
      {"report.txt", "report(1).txt"},
      {"C:/data/100%S %u.txt", "C:/data/100%S %u(1).txt"},
      {"C:/gr\xc3\xbc\xc3\x9f"
       "e/\xf0\x9f\x93\x84.txt",
       "C:/gr\xc3\xbc\xc3\x9f"
       "e/\xf0\x9f\x93\x84(1).txt"},
      {"ftp://files.example/a.txt", "ftp://files.example/a(1).txt"},
  };
  for (const auto& [path, copy] : names) {
    host.ForgetTranscript();
    host.Answer("FileExists", 1);
    AnswerVerdict(host, kReadable);
    AnswerVerdict(host, kWritable);
    host.Answer("FileExists", 0);
    host.Answer("FileCopyNet", 0);

    EXPECT_EQ(Run("CoreUtilsCopyFile", Pair(path, path)), (Outcome{kSuccess, "{}"}));
    EXPECT_EQ(host.Transcript().back(),
              std::string("FileCopyNet(\"") + path + "\", \"" + copy + "\", 0)");
  }
}

TEST_F(CopyFile, PassesAUrlOntoItselfUnchanged) {
  host.Answer("FileExists", 1);
  host.Answer("FileCopyNet", 0);

  EXPECT_EQ(Run("CoreUtilsCopyFile", Pair(kUrl, kUrl)), (Outcome{kSuccess, "{}"}));

  EXPECT_THAT(
      host.Transcript(),
      ElementsAre(
          "Detail \"Copying file http://files.example/a.txt to http://files.example/a.txt\"",
          "FileExists(\"http://files.example/a.txt\")",
          "FileCopyNet(\"http://files.example/a.txt\", \"http://files.example/a.txt\", 0)"));
}

TEST_F(CopyFile, AsksOnlyForTheLocalSideOfADownload) {
  host.Answer("FileExists", 1);
  AnswerVerdict(host, kForbidden);

  EXPECT_EQ(Run("CoreUtilsCopyFile", Pair(kUrl, kDestination)),
            (Outcome{12, "{Result: Bool false}"}));
  EXPECT_EQ(host.Transcript().back(), PrivacyCheck(kDestination, "maria", "Write"));
}

TEST_F(CopyFile, TakesAnyNonZeroAnswerAsATakenName) {
  host.Answer("FileExists", 1);
  AnswerVerdict(host, kReadable);
  AnswerVerdict(host, kWritable);
  host.Answer("FileExists", 2);
  host.Answer("FileExists", -1);
  host.Answer("FileExists", 0);
  host.Answer("FileCopyNet", 0);

  Run("CoreUtilsCopyFile", Pair("C:/a/b.txt", "C:/a/b.txt"));

  EXPECT_EQ(host.Transcript().back(), "FileCopyNet(\"C:/a/b.txt\", \"C:/a/b(3).txt\", 0)");
}

TEST_F(CopyFile, TakesPathsOfDifferentLettersAsDifferentFiles) {
  for (const std::string destination :
       {"C:/a/B.txt", "C:\\a\\b.txt", "C:/a//b.txt", "C:/a/./b.txt", "C:/a/b.txt ", ""}) {
    host.Answer("FileExists", 1);
    AnswerVerdict(host, kReadable);
    AnswerVerdict(host, kWritable);
    host.Answer("FileCopyNet", 0);

    ZelContainer params = Pair("C:/a/b.txt", destination.c_str());
    params.SetString("Path", "C:/other", kNoIndex);
    Run("CoreUtilsCopyFile", params);

    EXPECT_EQ(host.Transcript().back(), "FileCopyNet(\"C:/a/b.txt\", \"" + destination + "\", 0)");
  }
}

TEST_F(CopyFile, ReadsAbsentParametersAsEmpty) {
  host.Answer("FileExists", 0);

  EXPECT_EQ(Run("CoreUtilsCopyFile", ZelContainer()), (Outcome{14001, "{Result: Int32 0}"}));

  EXPECT_THAT(host.Transcript(), ElementsAre("Detail \"Copying file  to \"", "FileExists(\"\")"));
}

TEST_F(CopyFile, ReadsParametersOfAnotherTypeAndListsAsEmpty) {
  for (const ZelContainer& params : ListsAndNumbers({"SourcePath", "DestinationPath"})) {
    host.ForgetTranscript();
    host.Answer("FileExists", 0);

    EXPECT_EQ(Run("CoreUtilsCopyFile", params), (Outcome{14001, "{Result: Int32 0}"}));

    EXPECT_THAT(host.Transcript(), ElementsAre("Detail \"Copying file  to \"", "FileExists(\"\")"));
  }
}

TEST_F(CopyFile, AsksThePolicyForAnEmptyLogin) {
  host.Answer("FileExists", 1);
  AnswerVerdict(host, kForbidden);

  EXPECT_EQ(Run("CoreUtilsCopyFile", Texts({{"SourcePath", "C:/a"}, {"DestinationPath", "C:/b"}})),
            (Outcome{12, "{Result: Bool false}"}));
  EXPECT_EQ(host.Transcript().back(), PrivacyCheck("C:/a", "", "Read"));
}

// ---- Rename a file ----

using RenameFile = ModuleTest;

TEST_F(RenameFile, MovesTheSourceToTheDestination) {
  host.Answer("FileExists", 1);
  AnswerVerdict(host, kReadable);
  AnswerVerdict(host, kWritable);
  host.Answer("FileRenameNet", 0);

  EXPECT_EQ(Run("CoreUtilsRenameFile", Pair(kSource, kDestination)), (Outcome{kSuccess, "{}"}));

  EXPECT_THAT(host.Transcript(),
              ElementsAre("Detail \"Renaming file C:\\in\\a.txt to C:\\out\\b.txt\"",
                          "FileExists(\"C:\\in\\a.txt\")", PrivacyCheck(kSource, "maria", "Read"),
                          PrivacyCheck(kDestination, "maria", "Write"),
                          "FileRenameNet(\"C:\\in\\a.txt\", \"C:\\out\\b.txt\")"));
}

TEST_F(RenameFile, AnswersOneWhenTheHostFails) {
  for (const int error : {1, -1, 17}) {
    host.Answer("FileExists", 1);
    AnswerVerdict(host, kReadable);
    AnswerVerdict(host, kWritable);
    host.Answer("FileRenameNet", error);

    EXPECT_EQ(Run("CoreUtilsRenameFile", Pair(kSource, kDestination)), (Outcome{kFailure, "{}"}));
  }
}

TEST_F(RenameFile, TellsAMissingSourceBeforeAskingThePolicy) {
  host.Answer("FileExists", 0);

  EXPECT_EQ(Run("CoreUtilsRenameFile", Pair(kSource, kDestination)),
            (Outcome{14001, "{Result: Int32 0}"}));
  EXPECT_EQ(host.Transcript().back(), "FileExists(\"C:\\in\\a.txt\")");
}

TEST_F(RenameFile, DoesNotAskForTheDestinationWhenTheSourceIsRefused) {
  host.Answer("FileExists", 1);
  AnswerVerdict(host, kWritable);

  EXPECT_EQ(Run("CoreUtilsRenameFile", Pair(kSource, kDestination)),
            (Outcome{12, "{Result: Bool false}"}));
  EXPECT_EQ(host.Transcript().back(), PrivacyCheck(kSource, "maria", "Read"));
}

TEST_F(RenameFile, RefusesADestinationThatMayOnlyBeRead) {
  host.Answer("FileExists", 1);
  AnswerVerdict(host, kReadable);
  AnswerVerdict(host, kReadable);

  EXPECT_EQ(Run("CoreUtilsRenameFile", Pair(kSource, kDestination)),
            (Outcome{12, "{Result: Bool false}"}));
  EXPECT_EQ(host.Transcript().back(), PrivacyCheck(kDestination, "maria", "Write"));
}

TEST_F(RenameFile, DoesNotPickAFreeName) {
  host.Answer("FileExists", 1);
  AnswerVerdict(host, kReadable);
  AnswerVerdict(host, kWritable);
  host.Answer("FileRenameNet", 0);

  Run("CoreUtilsRenameFile", Pair(kSource, kSource));

  EXPECT_EQ(host.Transcript().back(), "FileRenameNet(\"C:\\in\\a.txt\", \"C:\\in\\a.txt\")");
}

// ---- Delete a file ----

using DeleteFile = ModuleTest;

TEST_F(DeleteFile, DeletesThePath) {
  host.Answer("FileExists", 1);
  AnswerVerdict(host, kWritable);
  host.Answer("FileDeleteNet", 0);

  EXPECT_EQ(Run("CoreUtilsDeleteFile", Single(kSource)), (Outcome{kSuccess, "{}"}));

  EXPECT_THAT(host.Transcript(),
              ElementsAre("Detail \"Deleting file C:\\in\\a.txt\"", "FileExists(\"C:\\in\\a.txt\")",
                          PrivacyCheck(kSource, "maria", "Write"),
                          "FileDeleteNet(\"C:\\in\\a.txt\", false)"));
}

TEST_F(DeleteFile, AnswersOneWhenTheHostFails) {
  for (const int error : {1, -1, 13}) {
    host.Answer("FileExists", 1);
    AnswerVerdict(host, kWritable);
    host.Answer("FileDeleteNet", error);

    EXPECT_EQ(Run("CoreUtilsDeleteFile", Single(kSource)), (Outcome{kFailure, "{}"}));
  }
}

TEST_F(DeleteFile, TellsAMissingFileBeforeAskingThePolicy) {
  host.Answer("FileExists", 0);

  EXPECT_EQ(Run("CoreUtilsDeleteFile", Single(kSource)), (Outcome{14001, "{Result: Int32 0}"}));
  EXPECT_EQ(host.Transcript().back(), "FileExists(\"C:\\in\\a.txt\")");
}

TEST_F(DeleteFile, RefusesAFileThatMayOnlyBeRead) {
  host.Answer("FileExists", 1);
  AnswerVerdict(host, kReadable);

  EXPECT_EQ(Run("CoreUtilsDeleteFile", Single(kSource)), (Outcome{12, "{Result: Bool false}"}));
  EXPECT_EQ(host.Transcript().back(), PrivacyCheck(kSource, "maria", "Write"));
}

TEST_F(DeleteFile, DeletesAUrlWithoutAskingThePolicy) {
  host.Answer("FileExists", 1);
  host.Answer("FileDeleteNet", 0);

  EXPECT_EQ(Run("CoreUtilsDeleteFile", Single(kUrl)), (Outcome{kSuccess, "{}"}));
}

// ---- Tell a file's size ----

using GetFileSize = ModuleTest;

TEST_F(GetFileSize, AnswersTheSize) {
  host.Answer("FileExists", 1);
  AnswerVerdict(host, kReadable);
  host.Answer("FileGetSize", 4711);

  EXPECT_EQ(Run("CoreUtilsGetFileSize", Single(kSource)),
            (Outcome{kSuccess, "{Result: Int32 4711}"}));

  EXPECT_THAT(
      host.Transcript(),
      ElementsAre("Detail \"Get size for file C:\\in\\a.txt\"", "FileExists(\"C:\\in\\a.txt\")",
                  PrivacyCheck(kSource, "maria", "Read"), "FileGetSize(\"C:\\in\\a.txt\")"));
}

TEST_F(GetFileSize, AnswersThirtyTwoBitsAsASignedNumber) {
  const std::pair<int64_t, const char*> sizes[] = {
      {0, "{Result: Int32 0}"},
      {0x7fffffff, "{Result: Int32 2147483647}"},
      {0x80000000, "{Result: Int32 -2147483648}"},
      {3LL * 1024 * 1024 * 1024, "{Result: Int32 -1073741824}"},
      {0xffffffff, "{Result: Int32 -1}"},
  };
  for (const auto& [size, container] : sizes) {
    host.Answer("FileExists", 1);
    AnswerVerdict(host, kReadable);
    host.Answer("FileGetSize", size);

    EXPECT_EQ(Run("CoreUtilsGetFileSize", Single(kSource)), (Outcome{kSuccess, container}));
  }
}

TEST_F(GetFileSize, TellsAMissingFileBeforeAskingThePolicy) {
  host.Answer("FileExists", 0);

  EXPECT_EQ(Run("CoreUtilsGetFileSize", Single(kSource)), (Outcome{14001, "{Result: Int32 0}"}));
  EXPECT_EQ(host.Transcript().back(), "FileExists(\"C:\\in\\a.txt\")");
}

TEST_F(GetFileSize, RefusesWithANumber) {
  host.Answer("FileExists", 1);
  AnswerVerdict(host, kWritable);

  EXPECT_EQ(Run("CoreUtilsGetFileSize", Single(kSource)), (Outcome{12, "{Result: Int32 0}"}));
  EXPECT_EQ(host.Transcript().back(), PrivacyCheck(kSource, "maria", "Read"));
}

// ---- Create a directory ----

using DirCreate = ModuleTest;

TEST_F(DirCreate, CreatesThePathWithForwardSlashes) {
  host.Answer("DirExists", 0);
  AnswerVerdict(host, kWritable);
  host.Answer("DirCreate", 1);

  EXPECT_EQ(Run("CoreUtilsDirCreate", Single("C:\\x\\y")), (Outcome{kSuccess, "{}"}));

  EXPECT_THAT(host.Transcript(),
              ElementsAre("Detail \"Creating directory C:/x/y\"", "DirExists(\"C:/x/y\")",
                          PrivacyCheck("C:/x/", "maria", "Write"), "DirCreate(\"C:/x/y\")"));
}

TEST_F(DirCreate, AnswersOneWhenTheHostAnswersZero) {
  host.Answer("DirExists", 0);
  AnswerVerdict(host, kWritable);
  host.Answer("DirCreate", 0);

  EXPECT_EQ(Run("CoreUtilsDirCreate", Single("C:\\x\\y")), (Outcome{kFailure, "{}"}));
}

TEST_F(DirCreate, AnswersZeroWhateverElseTheHostAnswers) {
  for (const int created : {1, -1, 183}) {
    host.Answer("DirExists", 0);
    AnswerVerdict(host, kWritable);
    host.Answer("DirCreate", created);

    EXPECT_EQ(Run("CoreUtilsDirCreate", Single("C:\\x\\y")), (Outcome{kSuccess, "{}"}));
  }
}

TEST_F(DirCreate, IsDoneAtOnceWhenTheDirectoryExists) {
  for (const int exists : {1, 2, -1}) {
    host.ForgetTranscript();
    host.Answer("DirExists", exists);

    EXPECT_EQ(Run("CoreUtilsDirCreate", Single("C:\\x\\y")), (Outcome{kSuccess, "{}"}));

    EXPECT_THAT(host.Transcript(),
                ElementsAre("Detail \"Creating directory C:/x/y\"", "DirExists(\"C:/x/y\")"));
  }
}

TEST_F(DirCreate, ChecksAPathThatEndsInASeparatorItself) {
  host.Answer("DirExists", 0);
  AnswerVerdict(host, kWritable);
  host.Answer("DirCreate", 1);

  EXPECT_EQ(Run("CoreUtilsDirCreate", Single("C:\\x\\y\\")), (Outcome{kSuccess, "{}"}));

  EXPECT_THAT(host.Transcript(),
              ElementsAre("Detail \"Creating directory C:/x/y/\"", "DirExists(\"C:/x/y/\")",
                          PrivacyCheck("C:/x/y/", "maria", "Write"), "DirCreate(\"C:/x/y/\")"));
}

TEST_F(DirCreate, RefusesWithoutAResult) {
  host.Answer("DirExists", 0);
  AnswerVerdict(host, kReadable);

  EXPECT_EQ(Run("CoreUtilsDirCreate", Single("C:\\x\\y")), (Outcome{12, "{}"}));
  EXPECT_EQ(host.Transcript().back(), PrivacyCheck("C:/x/", "maria", "Write"));
}

TEST_F(DirCreate, ChecksTheParentOfARelativeName) {
  host.Answer("DirExists", 0);
  AnswerVerdict(host, kForbidden);

  EXPECT_EQ(Run("CoreUtilsDirCreate", Single("y")), (Outcome{12, "{}"}));
  EXPECT_EQ(host.Transcript().back(), PrivacyCheck("", "maria", "Write"));
}

TEST_F(DirCreate, ChecksTheParentOnAShare) {
  host.Answer("DirExists", 0);
  AnswerVerdict(host, kForbidden);

  EXPECT_EQ(Run("CoreUtilsDirCreate", Single("\\\\server\\share\\x\\y")), (Outcome{12, "{}"}));
  EXPECT_EQ(host.Transcript().back(), PrivacyCheck("//server/share/x/", "maria", "Write"));
}

TEST_F(DirCreate, AsksNoPolicyAboutTheParentOfAUrl) {
  host.Answer("DirExists", 0);
  host.Answer("DirCreate", 0);

  EXPECT_EQ(Run("CoreUtilsDirCreate", Single("http://files.example/x/y")),
            (Outcome{kFailure, "{}"}));

  EXPECT_THAT(host.Transcript(),
              ElementsAre("Detail \"Creating directory http://files.example/x/y\"",
                          "DirExists(\"http://files.example/x/y\")",
                          "DirCreate(\"http://files.example/x/y\")"));
}

// ---- Rename a directory ----

using DirRename = ModuleTest;

TEST_F(DirRename, RenamesTwiceAndAnswersZeroForANonZeroSecondResult) {
  host.ForgetTranscript();
  AnswerVerdict(host, kReadable);
  AnswerVerdict(host, kWritable);
  host.Answer("DirRename", 1);
  host.Answer("DirRename", 1);

  EXPECT_EQ(Run("CoreUtilsDirRename", Pair("C:\\x", "C:\\y")), (Outcome{kSuccess, "{}"}));

  EXPECT_THAT(
      host.Transcript(),
      ElementsAre("Detail \"Renaming directory C:\\x to C:\\y\"",
                  PrivacyCheck("C:\\x", "maria", "Read"), PrivacyCheck("C:\\y", "maria", "Write"),
                  "DirRename(\"C:\\x\", \"C:\\y\")", "DirRename(\"C:\\x\", \"C:\\y\")"));
}

TEST_F(DirRename, DecidesOnTheSecondResultAlone) {
  struct {
    int first;
    int second;
    ResultCode code;
  } const cases[] = {{0, 0, 1}, {0, 1, 0}, {1, 0, 1}, {1, 1, 0}, {0, -1, 0}, {-1, 0, 1}};
  for (const auto& [first, second, code] : cases) {
    AnswerVerdict(host, kReadable);
    AnswerVerdict(host, kWritable);
    host.Answer("DirRename", first);
    host.Answer("DirRename", second);

    EXPECT_EQ(Run("CoreUtilsDirRename", Pair("C:\\x", "C:\\y")), (Outcome{code, "{}"}))
        << first << " " << second;
  }
}

TEST_F(DirRename, DoesNotAskForTheDestinationWhenTheSourceIsRefused) {
  AnswerVerdict(host, kWritable);

  EXPECT_EQ(Run("CoreUtilsDirRename", Pair("C:\\x", "C:\\y")),
            (Outcome{12, "{Result: Bool false}"}));
  EXPECT_EQ(host.Transcript().back(), PrivacyCheck("C:\\x", "maria", "Read"));
}

TEST_F(DirRename, RefusesADestinationThatMayOnlyBeRead) {
  AnswerVerdict(host, kReadable);
  AnswerVerdict(host, kReadable);

  EXPECT_EQ(Run("CoreUtilsDirRename", Pair("C:\\x", "C:\\y")),
            (Outcome{12, "{Result: Bool false}"}));
  EXPECT_EQ(host.Transcript().back(), PrivacyCheck("C:\\y", "maria", "Write"));
}

TEST_F(DirRename, HandsADirectoryOntoItselfToTheHost) {
  AnswerVerdict(host, kReadable);
  AnswerVerdict(host, kWritable);
  host.Answer("DirRename", 0);
  host.Answer("DirRename", 0);

  EXPECT_EQ(Run("CoreUtilsDirRename", Pair("C:\\x", "C:\\x")), (Outcome{kFailure, "{}"}));
}

TEST_F(DirRename, HandsUrlsToTheHost) {
  host.Answer("DirRename", 1);
  host.Answer("DirRename", 1);

  EXPECT_EQ(Run("CoreUtilsDirRename", Pair(kUrl, kUrl)), (Outcome{kSuccess, "{}"}));
}

// ---- Delete a directory ----

using DirDelete = ModuleTest;

TEST_F(DirDelete, DeletesTheSameWayWithAndWithoutTheFlagAndLogsNothing) {
  for (const ZelContainer& params :
       {Single("C:\\x"), SingleRecursive("C:\\x", false), SingleRecursive("C:\\x", true)}) {
    host.ForgetTranscript();
    AnswerVerdict(host, kWritable);
    host.Answer("DirDelete", 1);

    EXPECT_EQ(Run("CoreUtilsDirDelete", params), (Outcome{kSuccess, "{}"}));

    EXPECT_THAT(host.Transcript(),
                ElementsAre(PrivacyCheck("C:\\x", "maria", "Write"), "DirDelete(\"C:\\x\", 1, 0)"));
  }
}

TEST_F(DirDelete, AnswersZeroWhateverTheHostAnswers) {
  for (const int deleted : {0, 1, -1, 145}) {
    for (const bool isRecursive : {false, true}) {
      AnswerVerdict(host, kWritable);
      host.Answer("DirDelete", deleted);

      EXPECT_EQ(Run("CoreUtilsDirDelete", SingleRecursive("C:\\x", isRecursive)),
                (Outcome{kSuccess, "{}"}));
    }
  }
}

TEST_F(DirDelete, RefusesADirectoryThatMayOnlyBeRead) {
  for (const bool isRecursive : {false, true}) {
    host.ForgetTranscript();
    AnswerVerdict(host, kReadable);

    EXPECT_EQ(Run("CoreUtilsDirDelete", SingleRecursive("C:\\x", isRecursive)),
              (Outcome{12, "{Result: Bool false}"}));

    EXPECT_THAT(host.Transcript(), ElementsAre(PrivacyCheck("C:\\x", "maria", "Write")));
  }
}

}  // namespace
