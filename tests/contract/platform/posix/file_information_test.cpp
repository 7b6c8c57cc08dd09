#include <string>
#include <string_view>

#include "tests/contract/module_test.h"

namespace {

using namespace std::literals;

constexpr const char* kPath = "C:\\in\\a.exe";
constexpr const char* kDigest = "5d41402abc4b2a76b9719d911017c592";
/// Language 0409, code page 04b0.
const std::string kTranslation = "\x09\x04\xb0\x04";

std::string Wide(std::u16string_view text) {
  return {reinterpret_cast<const char*>(text.data()), text.size() * 2};
}

ZelContainer Parameters() {
  return Texts({{"Path", kPath}, {"Name", "caller.exe"}, {"DACurrentConsoleUser", "maria"}});
}

std::string ResourceQuery(const std::string& path) {
  return "VerQueryValueW(\"res\", \"" + path + "\")";
}

std::string ApplicationQuery(const std::string& fileName, const std::string& size = "5") {
  return "ActionDbInvokeContainer(null, \"\", \"GetApplicationInfo\", {FileName: String \"" +
         fileName + "\", FileSize: Int32 " + size +
         ", FileChecksum: String \"\"}, null, ~0, ~0, false)";
}

/// The container of an action that went through, for a file without an application.
Outcome Information(const std::string& originalName, const std::string& version) {
  return {kSuccess, "{OriginalFileName: String \"" + originalName + "\", FileVersion: String \"" +
                        version + "\", FileChecksum: String \"" + kDigest +
                        "\", FileSize: Int32 5, ApplicationName: String \"" + originalName +
                        "\", IsText: Bool false}"};
}

class GetFileInformation : public ModuleTest {
 protected:
  void AnswerReadable() {
    host.Answer("FileExists", 1);
    AnswerVerdict(host, kReadable);
  }
  /// A resource of ten bytes that begins with "res".
  void AnswerResource() {
    host.Answer("GetFileVersionInfoSizeW", 10);
    host.AnswerBytes("GetFileVersionInfoW", "res", 1);
  }
  void AnswerNoResource() {
    host.Answer("GetFileVersionInfoSizeW", 0);
    host.Answer("GetFileVersionInfoW", 0);
  }
  /// A text of the resource; the length counts characters.
  void AnswerResourceText(std::u16string_view text) {
    host.AnswerBytes("VerQueryValueW", Wide(text), static_cast<int64_t>(text.size()));
  }
  void AnswerRest(uint32_t applicationCode = kFileNotFound) {
    host.AnswerText("FileMd5", kDigest);
    host.Answer("FileGetSize", 5);
    host.AnswerInvocation(applicationCode);
    host.Answer("File::FileIsValid", 0);
  }
  /// The outcome for a program whose resource holds these texts.
  Outcome Describe(std::u16string_view originalName, std::u16string_view version) {
    AnswerReadable();
    AnswerResource();
    host.AnswerBytes("VerQueryValueW", kTranslation);
    AnswerResourceText(originalName);
    AnswerResourceText(version);
    AnswerRest();
    return Run("CoreUtilsGetFileInformation", Parameters());
  }
};

TEST_F(GetFileInformation, AsksInThisOrder) {
  EXPECT_EQ(Describe(u"tool.exe\0"sv, u"1.2.3\0"sv), Information("tool.exe", "1.2.3"));

  EXPECT_THAT(host.Transcript(),
              ElementsAre("Detail \"Get information for file C:\\in\\a.exe\"",
                          "FileExists(\"C:\\in\\a.exe\")", PrivacyCheck(kPath, "maria", "Read"),
                          "GetFileVersionInfoSizeW(\"C:\\in\\a.exe\", null)",
                          "GetFileVersionInfoW(\"C:\\in\\a.exe\", 0, 10)",
                          ResourceQuery("\\VarFileInfo\\Translation"),
                          ResourceQuery("\\StringFileInfo\\040904b0\\OriginalFilename"),
                          ResourceQuery("\\StringFileInfo\\040904b0\\FileVersion"),
                          "FileMd5(\"C:\\in\\a.exe\")", "FileGetSize(\"C:\\in\\a.exe\")",
                          ApplicationQuery("tool.exe"), "File::FileIsValid(\"C:\\in\\a.exe\")"));
}

TEST_F(GetFileInformation, AnswersZeroForAFileThatDoesNotExistBeforeAnyPrivacyCheck) {
  host.Answer("FileExists", 0);

  EXPECT_EQ(Run("CoreUtilsGetFileInformation", Parameters()),
            (Outcome{kFileNotFound, "{Result: Int32 0}"}));

  EXPECT_EQ(host.Transcript().size(), 2u);
}

TEST_F(GetFileInformation, IsRefusedWithoutThePermissionToRead) {
  host.Answer("FileExists", 1);
  AnswerVerdict(host, kForbidden);

  EXPECT_EQ(Run("CoreUtilsGetFileInformation", Parameters()), (Outcome{kAccessRefused, "{}"}));

  EXPECT_EQ(host.Transcript().size(), 3u);
}

TEST_F(GetFileInformation, IsRefusedWhenThePolicyCannotBeAsked) {
  host.Answer("FileExists", 1);
  host.AnswerInvocation(kInvokeUnknownAction);

  EXPECT_EQ(Run("CoreUtilsGetFileInformation", Parameters()), (Outcome{kAccessRefused, "{}"}));
}

TEST_F(GetFileInformation, TakesTheParametersOutBeforeItsFirstCallAndWritesAsItGoes) {
  AnswerReadable();
  AnswerNoResource();
  AnswerRest();

  // The names are written before the digest is asked for; each answer follows its question.
  EXPECT_THAT(KeysAtEachCall("CoreUtilsGetFileInformation", Parameters()),
              ElementsAre(0, 0, 0, 0, 0, 2, 3, 4, 5));
}

TEST_F(GetFileInformation, DropsKeysThatItDoesNotKnow) {
  ZelContainer params = Parameters();
  params.SetString("Other", "x", kNoIndex);
  params.SetString("Result", "stale", kNoIndex);
  params.SetString("IsText", "stale", kNoIndex);
  params.SetInt32("FileSize", 99, 0);
  AnswerReadable();
  AnswerNoResource();
  AnswerRest();
  EXPECT_EQ(Run("CoreUtilsGetFileInformation", params), Information("", ""));

  host.Answer("FileExists", 1);
  AnswerVerdict(host, kForbidden);
  EXPECT_EQ(Run("CoreUtilsGetFileInformation", params), (Outcome{kAccessRefused, "{}"}));

  host.Answer("FileExists", 0);
  EXPECT_EQ(Run("CoreUtilsGetFileInformation", params),
            (Outcome{kFileNotFound, "{Result: Int32 0}"}));
}

TEST_F(GetFileInformation, AsksNoPrivacyPolicyAboutUrls) {
  host.Answer("FileExists", 1);
  AnswerNoResource();
  AnswerRest();

  EXPECT_EQ(Run("CoreUtilsGetFileInformation", Texts({{"Path", "http://files.example/a.exe"}})),
            Information("", ""));

  EXPECT_EQ(host.Transcript()[2], "GetFileVersionInfoSizeW(\"http://files.example/a.exe\", null)");
}

TEST_F(GetFileInformation, TakesEveryAnswerButZeroForAFileThatExists) {
  for (const int answer : {-1, 2}) {
    host.Answer("FileExists", answer);
    AnswerVerdict(host, kReadable);
    AnswerNoResource();
    AnswerRest();

    EXPECT_EQ(Run("CoreUtilsGetFileInformation", Parameters()), Information("", "")) << answer;
  }
}

TEST_F(GetFileInformation, DescribesAFileWithoutAResource) {
  AnswerReadable();
  AnswerNoResource();
  host.AnswerText("FileMd5", kDigest);
  host.Answer("FileGetSize", 5);
  host.AnswerInvocation(kFailure);
  host.Answer("File::FileIsValid", 1);

  EXPECT_EQ(Run("CoreUtilsGetFileInformation", Parameters()),
            (Outcome{kSuccess,
                     "{OriginalFileName: String \"\", FileVersion: String \"\", "
                     "FileChecksum: String \"" +
                         std::string(kDigest) +
                         "\", FileSize: Int32 5, ApplicationName: String \"\", "
                         "IsText: Bool true}"}));

  EXPECT_EQ(host.Transcript()[4], "GetFileVersionInfoW(\"C:\\in\\a.exe\", 0, 0)");
  EXPECT_EQ(host.Transcript()[7], ApplicationQuery(""));
}

TEST_F(GetFileInformation, TakesAbsentParametersAsEmpty) {
  AnswerReadable();
  AnswerNoResource();
  AnswerRest();

  EXPECT_EQ(Run("CoreUtilsGetFileInformation", {}), Information("", ""));

  EXPECT_EQ(host.Transcript()[0], "Detail \"Get information for file \"");
  EXPECT_EQ(host.Transcript()[2], PrivacyCheck("", "", "Read"));
}

TEST_F(GetFileInformation, TakesTextsThatAreListsOrNumbersForEmpty) {
  for (const ZelContainer& params : ListsAndNumbers({"Path", "Name", "DACurrentConsoleUser"})) {
    host.ForgetTranscript();
    AnswerReadable();
    AnswerResource();
    host.AnswerBytes("VerQueryValueW", kTranslation);
    AnswerResourceText(u"x\0"sv);
    AnswerResourceText(u"1.2\0"sv);
    AnswerRest();

    // The name too short for one would give way to the caller's.
    EXPECT_EQ(Run("CoreUtilsGetFileInformation", params), Information("", "1.2"));

    EXPECT_EQ(host.Transcript()[0], "Detail \"Get information for file \"");
    EXPECT_EQ(host.Transcript()[2], PrivacyCheck("", "", "Read"));
  }
}

TEST_F(GetFileInformation, AsksForNoTextsWithoutATranslation) {
  for (const bool isEmpty : {false, true}) {
    host.ForgetTranscript();
    AnswerReadable();
    AnswerResource();
    if (isEmpty) {
      host.AnswerBytes("VerQueryValueW", "");
    } else {
      host.Answer("VerQueryValueW", 0);
    }
    AnswerRest();

    EXPECT_EQ(Run("CoreUtilsGetFileInformation", Parameters()), Information("", ""));

    EXPECT_EQ(host.Transcript()[5], ResourceQuery("\\VarFileInfo\\Translation"));
    EXPECT_EQ(host.Transcript()[6], "FileMd5(\"C:\\in\\a.exe\")");
  }
}

TEST_F(GetFileInformation, TakesATranslationCutShortForNone) {
  AnswerReadable();
  AnswerResource();
  host.AnswerBytes("VerQueryValueW", "\x09\x04");
  AnswerRest();

  EXPECT_EQ(Run("CoreUtilsGetFileInformation", Parameters()), Information("", ""));
}

TEST_F(GetFileInformation, UsesTheFirstTranslationAlone) {
  AnswerReadable();
  AnswerResource();
  host.AnswerBytes("VerQueryValueW", "\x07\x0c\xe4\x04"s + kTranslation);
  host.Answer("VerQueryValueW", 0);
  host.Answer("VerQueryValueW", 0);
  AnswerRest();

  EXPECT_EQ(Run("CoreUtilsGetFileInformation", Parameters()), Information("", ""));

  EXPECT_EQ(host.Transcript()[6], ResourceQuery("\\StringFileInfo\\0c0704e4\\OriginalFilename"));
  EXPECT_EQ(host.Transcript()[7], ResourceQuery("\\StringFileInfo\\0c0704e4\\FileVersion"));
}

TEST_F(GetFileInformation, GoesOnWhenTheResourceCannotBeRead) {
  AnswerReadable();
  host.Answer("GetFileVersionInfoSizeW", 10);
  host.Answer("GetFileVersionInfoW", 0);
  host.Answer("VerQueryValueW", 0);
  AnswerRest();

  EXPECT_EQ(Run("CoreUtilsGetFileInformation", Parameters()), Information("", ""));
}

TEST_F(GetFileInformation, TakesTheCallersNameForAnOriginalNameOfLessThanTwoCharacters) {
  for (const std::u16string_view tooShort : {u"x\0"sv, u"x"sv, u"\0"sv, u"\0\0\0"sv}) {
    EXPECT_EQ(Describe(tooShort, u"1.2\0"sv), Information("caller.exe", "1.2"));
  }
  EXPECT_EQ(Describe(u"xy\0"sv, u"1.2\0"sv), Information("xy", "1.2"));
}

TEST_F(GetFileInformation, TakesAnOriginalNameOfLengthZeroForNoneWhateverTheCallersName) {
  EXPECT_EQ(Describe(u""sv, u"1.2\0"sv), Information("", "1.2"));

  // There is memory behind the answer, but none of it is the text's.
  AnswerReadable();
  AnswerResource();
  host.AnswerBytes("VerQueryValueW", kTranslation);
  host.AnswerBytes("VerQueryValueW", Wide(u"tool.exe\0"sv), 0);
  AnswerResourceText(u"1.2\0"sv);
  AnswerRest();
  EXPECT_EQ(Run("CoreUtilsGetFileInformation", Parameters()), Information("", "1.2"));
}

TEST_F(GetFileInformation, LeavesAShortOriginalNameEmptyWithoutACallersName) {
  AnswerReadable();
  AnswerResource();
  host.AnswerBytes("VerQueryValueW", kTranslation);
  AnswerResourceText(u"x\0"sv);
  AnswerResourceText(u"1.2\0"sv);
  AnswerRest();

  EXPECT_EQ(Run("CoreUtilsGetFileInformation", Texts({{"Path", kPath}})), Information("", "1.2"));
}

TEST_F(GetFileInformation, TakesAVersionOfLessThanTwoCharactersForNone) {
  for (const std::u16string_view tooShort : {u"1\0"sv, u"1"sv, u"\0"sv}) {
    EXPECT_EQ(Describe(u"tool.exe\0"sv, tooShort), Information("tool.exe", ""));
  }
}

TEST_F(GetFileInformation, TakesTextsWithoutATerminator) {
  EXPECT_EQ(Describe(u"tool.exe"sv, u"12"sv), Information("tool.exe", "12"));
}

TEST_F(GetFileInformation, EndsTextsAtTheirTerminator) {
  EXPECT_EQ(Describe(u"tool.exe\0rest"sv, u"1.2\0\0"sv), Information("tool.exe", "1.2"));
}

TEST_F(GetFileInformation, ReadsTextsOfAnyScript) {
  EXPECT_EQ(Describe(u"\u00e9\u20ac\0"sv, u"1.2\0"sv), Information("\xC3\xA9\xE2\x82\xAC", "1.2"));
}

TEST_F(GetFileInformation, LeavesNamesEmptyWhenTheResourceHasNoTexts) {
  AnswerReadable();
  AnswerResource();
  host.AnswerBytes("VerQueryValueW", kTranslation);
  host.Answer("VerQueryValueW", 0);
  host.AnswerBytes("VerQueryValueW", "");
  AnswerRest();

  EXPECT_EQ(Run("CoreUtilsGetFileInformation", Parameters()), Information("", ""));
}

TEST_F(GetFileInformation, NamesTheApplicationThatTheAgentKnows) {
  AnswerReadable();
  AnswerNoResource();
  host.AnswerText("FileMd5", kDigest);
  host.Answer("FileGetSize", 5);
  host.AnswerInvocation(0, [](ZelContainer& query) { query.SetString("Name", "Tool", kNoIndex); });
  host.Answer("File::FileIsValid", 0);

  const Outcome outcome = Run("CoreUtilsGetFileInformation", Parameters());

  EXPECT_EQ(outcome.code, kSuccess);
  EXPECT_NE(outcome.container.find("ApplicationName: String \"Tool\""), std::string::npos)
      << outcome;
}

TEST_F(GetFileInformation, PrefersTheAgentsNameOfTheApplicationToTheOriginalName) {
  AnswerReadable();
  AnswerResource();
  host.AnswerBytes("VerQueryValueW", kTranslation);
  AnswerResourceText(u"tool.exe\0"sv);
  AnswerResourceText(u"1.2\0"sv);
  host.AnswerText("FileMd5", kDigest);
  host.Answer("FileGetSize", 5);
  host.AnswerInvocation(0, [](ZelContainer& query) { query.SetString("Name", "Tool", kNoIndex); });
  host.Answer("File::FileIsValid", 0);

  const Outcome outcome = Run("CoreUtilsGetFileInformation", Parameters());

  EXPECT_NE(outcome.container.find("OriginalFileName: String \"tool.exe\""), std::string::npos)
      << outcome;
  EXPECT_NE(outcome.container.find("ApplicationName: String \"Tool\""), std::string::npos)
      << outcome;
}

TEST_F(GetFileInformation, LeavesTheApplicationEmptyWhenTheAgentNamesNone) {
  AnswerReadable();
  AnswerResource();
  host.AnswerBytes("VerQueryValueW", kTranslation);
  AnswerResourceText(u"tool.exe\0"sv);
  AnswerResourceText(u"1.2\0"sv);
  AnswerRest(kSuccess);

  const Outcome outcome = Run("CoreUtilsGetFileInformation", Parameters());

  EXPECT_NE(outcome.container.find("OriginalFileName: String \"tool.exe\""), std::string::npos);
  EXPECT_NE(outcome.container.find("ApplicationName: String \"\""), std::string::npos) << outcome;
}

TEST_F(GetFileInformation, IgnoresANameThatComesWithAFailure) {
  AnswerReadable();
  AnswerNoResource();
  host.AnswerText("FileMd5", kDigest);
  host.Answer("FileGetSize", 5);
  host.AnswerInvocation(1, [](ZelContainer& query) { query.SetString("Name", "Tool", kNoIndex); });
  host.Answer("File::FileIsValid", 0);

  EXPECT_EQ(Run("CoreUtilsGetFileInformation", Parameters()), Information("", ""));
}

TEST_F(GetFileInformation, TellsTheLowestThirtyTwoBitsOfTheSize) {
  AnswerReadable();
  AnswerNoResource();
  host.AnswerText("FileMd5", "");
  host.Answer("FileGetSize", 0xC0000000);
  host.AnswerInvocation(1);
  host.Answer("File::FileIsValid", 0);

  const Outcome outcome = Run("CoreUtilsGetFileInformation", Parameters());

  EXPECT_NE(outcome.container.find("FileSize: Int32 -1073741824"), std::string::npos) << outcome;
  EXPECT_EQ(host.Transcript()[7], ApplicationQuery("", "-1073741824"));
}

}  // namespace
