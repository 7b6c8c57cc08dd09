#include <climits>
#include <string>
#include <vector>

#include "tests/contract/content_script.h"
#include "tests/fake_host/transcript.h"

namespace {

using namespace std::string_literals;
using ::testing::AllOf;
using ::testing::Each;
using ::testing::SizeIs;

constexpr uint32_t kFailedRead = 0xFFFFFFFF;
constexpr const char* kPath = "C:\\in\\a.txt";
const Outcome kUnsupported = TextOutcome(kFailure, "Unsupported file format");

const std::string kUtf8Mark = "\xEF\xBB\xBF";
const std::string kUtf16BigMark = "\xFE\xFF";
const std::string kUtf16LittleMark = "\xFF\xFE";
const std::string kUtf32BigMark = "\0\0\xFE\xFF"s;
const std::string kUtf32LittleMark = "\xFF\xFE\0\0"s;

/// The transcript of an action without its first lines.
std::vector<std::string> After(size_t lines, const std::vector<std::string>& transcript) {
  return {transcript.begin() + static_cast<ptrdiff_t>(lines), transcript.end()};
}

// ---- Read ----

class ReadFile : public ModuleTest {
 protected:
  /// Reads a file with this content; `length` counts from its start, mark included.
  Outcome Read(const std::string& content, uint32_t length, int32_t offset = 0) {
    AnswerReadableFile(host, content);
    return Run("CoreUtilsReadFile", ReadParameters(kPath, offset, length));
  }
  Outcome ReadWhole(const std::string& content) {
    return Read(content, static_cast<uint32_t>(content.size()));
  }
};

TEST_F(ReadFile, AsksInThisOrderAndAnswersTheTextAsBase64) {
  EXPECT_EQ(Read("hello", 5, 100), TextOutcome(kSuccess, "aGVsbG8="));

  EXPECT_THAT(host.Transcript(),
              ElementsAre("Detail \"Reading file C:\\in\\a.txt (offset 100, length 5)\"",
                          PrivacyCheck(kPath, "maria", "Read"), "FileExists(\"C:\\in\\a.txt\")",
                          "FileOpen(\"C:\\in\\a.txt\", 0)", "FileGetSize(\"C:\\in\\a.txt\")",
                          "FileRead(7, 4096)", "FileRead(7, 8187)", "FileClose(7)"));
}

TEST_F(ReadFile, TakesAbsentParametersAsEmptyAndZero) {
  AnswerReadableFile(host, "hello");

  EXPECT_EQ(Run("CoreUtilsReadFile", {}), TextOutcome(kSuccess, ""));

  EXPECT_EQ(host.Transcript()[0], "Detail \"Reading file  (offset 0, length 0)\"");
  EXPECT_EQ(host.Transcript()[1], PrivacyCheck("", "", "Read"));
}

TEST_F(ReadFile, TakesTextsThatAreListsOrNumbersForEmpty) {
  for (const ZelContainer& params : ListsAndNumbers({"Path", "DACurrentConsoleUser"})) {
    host.ForgetTranscript();
    host.Answer("FileExists", 0);
    AnswerVerdict(host, kReadable);

    EXPECT_EQ(Run("CoreUtilsReadFile", params), (Outcome{kFileNotFound, "{Result: Int32 0}"}));

    EXPECT_THAT(host.Transcript(), ElementsAre("Detail \"Reading file  (offset 0, length 0)\"",
                                               PrivacyCheck("", "", "Read"), "FileExists(\"\")"));
  }
}

TEST_F(ReadFile, LogsOffsetAndLengthAsUnsigned) {
  Read("hello", 0xFFFFFFFF, -1);

  EXPECT_EQ(host.Transcript()[0],
            "Detail \"Reading file C:\\in\\a.txt (offset 4294967295, length 4294967295)\"");
}

TEST_F(ReadFile, IsRefusedWithoutThePermissionToRead) {
  AnswerVerdict(host, kForbidden);

  EXPECT_EQ(Run("CoreUtilsReadFile", ReadParameters(kPath, 0, 5)), TextOutcome(kAccessRefused, ""));

  EXPECT_EQ(host.Transcript().size(), 2u);
  EXPECT_EQ(host.Transcript()[1], PrivacyCheck(kPath, "maria", "Read"));
}

TEST_F(ReadFile, IsRefusedWhenThePolicyCannotBeAsked) {
  host.AnswerInvocation(kInvokeUnknownAction);

  EXPECT_EQ(Run("CoreUtilsReadFile", ReadParameters(kPath, 0, 5)), TextOutcome(kAccessRefused, ""));
}

TEST_F(ReadFile, TakesTheParametersOutBeforeItsFirstCall) {
  AnswerReadableFile(host, "hello");

  EXPECT_THAT(KeysAtEachCall("CoreUtilsReadFile", ReadParameters(kPath, 0, 5)),
              AllOf(SizeIs(8), Each(0)));
}

TEST_F(ReadFile, DropsKeysThatItDoesNotKnow) {
  AnswerReadableFile(host, "hello");
  ZelContainer params = ReadParameters(kPath, 0, 5);
  params.SetString("Other", "mine", kNoIndex);
  params.SetInt32("ErrorCode", 7, kNoIndex);

  EXPECT_EQ(Run("CoreUtilsReadFile", params), ContentOutcome("hello"));
}

TEST_F(ReadFile, AnswersZeroForAFileThatDoesNotExist) {
  host.Answer("FileExists", 0);
  AnswerVerdict(host, kReadable);

  EXPECT_EQ(Run("CoreUtilsReadFile", ReadParameters(kPath, 0, 5)),
            (Outcome{kFileNotFound, "{Result: Int32 0}"}));
}

TEST_F(ReadFile, IgnoresTheOffset) {
  for (const int32_t offset : {0, 1, 100, INT_MAX, INT_MIN, -1}) {
    EXPECT_EQ(Read("hello", 5, offset), ContentOutcome("hello")) << offset;
  }
}

TEST_F(ReadFile, LeavesTheMarkOut) {
  EXPECT_EQ(ReadWhole(kUtf8Mark + "hello"), ContentOutcome("hello"));
  EXPECT_EQ(Read(kUtf8Mark + "hello", 8, 100), ContentOutcome("hello"));
}

TEST_F(ReadFile, CountsTheLengthFromTheStartOfTheFile) {
  EXPECT_EQ(Read(kUtf8Mark + "hello", 5), ContentOutcome("he"));
  EXPECT_EQ(Read("hello", 3), ContentOutcome("hel"));
}

TEST_F(ReadFile, AnswersNothingForALengthWithinTheMark) {
  for (const uint32_t length : {0U, 1U, 2U, 3U}) {
    EXPECT_EQ(Read(kUtf8Mark + "hello", length), ContentOutcome("")) << length;
  }
}

TEST_F(ReadFile, AnswersNoMoreThanTheFileHolds) {
  for (const uint32_t length : {9U, 4096U, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFFU}) {
    EXPECT_EQ(Read("hello", length), ContentOutcome("hello")) << length;
    EXPECT_EQ(Read(kUtf8Mark + "hello", length), ContentOutcome("hello")) << length;
  }
}

TEST_F(ReadFile, AnswersTextThatEndsInsideACharacterAsItIs) {
  EXPECT_EQ(Read("a\xC3\xA9", 2), ContentOutcome("a\xC3"));
}

TEST_F(ReadFile, KeepsEveryByteOfUtf8) {
  const std::string text = "a\0\r\n\t\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"s;
  EXPECT_EQ(ReadWhole(text), ContentOutcome(text));
  // After a mark nobody asks whether the text is valid.
  EXPECT_EQ(ReadWhole(kUtf8Mark + "\xFF\xC3"), ContentOutcome("\xFF\xC3"));
}

TEST_F(ReadFile, RefusesUtf16AndUtf32) {
  for (const std::string& mark :
       {kUtf16BigMark, kUtf16LittleMark, kUtf32BigMark, kUtf32LittleMark}) {
    for (const std::string& rest : {""s, "a"s, "\0a\0b"s, "hello"s}) {
      EXPECT_EQ(ReadWhole(mark + rest), kUnsupported) << QuoteBytes(mark + rest);
    }
  }
}

TEST_F(ReadFile, TakesNoMarkFromFilesTooShortForIt) {
  // Marks cut short: the ones that are valid UTF-8 are read as such.
  EXPECT_EQ(ReadWhole(""), ContentOutcome(""));
  EXPECT_EQ(ReadWhole("\0"s), ContentOutcome("\0"s));
  EXPECT_EQ(ReadWhole("\0\0"s), ContentOutcome("\0\0"s));
  EXPECT_EQ(ReadWhole("a"), ContentOutcome("a"));
  EXPECT_EQ(ReadWhole("ab"), ContentOutcome("ab"));
  EXPECT_EQ(ReadWhole("abc"), ContentOutcome("abc"));
  EXPECT_EQ(ReadWhole("abcd"), ContentOutcome("abcd"));
  EXPECT_EQ(ReadWhole("\xFF\xFE"), kUnsupported);
  EXPECT_EQ(ReadWhole("\xFF\xFE\0"s), kUnsupported);
  EXPECT_EQ(ReadWhole("\xFE\xFF"), kUnsupported);
  EXPECT_EQ(ReadWhole(kUtf8Mark), ContentOutcome(""));
}

TEST_F(ReadFile, ReadsFilesAroundTheSizeOfABlock) {
  const std::pair<size_t, std::vector<std::string>> reads[] = {
      {4095, {"FileRead(7, 4096)", "FileRead(7, 4097)"}},
      {4096, {"FileRead(7, 8192)", "FileRead(7, 4096)"}},
      {4097, {"FileRead(7, 8192)", "FileRead(7, 8191)"}},
  };
  for (const auto& [size, lines] : reads) {
    host.ForgetTranscript();
    const std::string content(size, 'x');

    EXPECT_EQ(ReadWhole(content), ContentOutcome(content));

    const std::vector<std::string> made = After(5, host.Transcript());
    EXPECT_EQ(std::vector<std::string>(made.begin(), made.begin() + 2), lines) << size;
  }
}

TEST_F(ReadFile, FollowsAFileThatGrowsWhileItIsRead) {
  const std::string block(4096, 'x');
  AnswerVerdict(host, kReadable);
  host.Answer("FileExists", 1);
  host.Answer("FileOpen", 7);
  host.Answer("FileGetSize", 0);
  for (int i = 0; i < 3; ++i) host.AnswerBytes("FileRead", block);
  host.AnswerBytes("FileRead", "end");
  host.Answer("FileRead", 0);

  EXPECT_EQ(Run("CoreUtilsReadFile", ReadParameters(kPath, 0, 20000)),
            ContentOutcome(block + block + block + "end"));

  EXPECT_THAT(After(5, host.Transcript()),
              ElementsAre("FileRead(7, 4096)", "FileRead(7, 4096)", "FileRead(7, 4096)",
                          "FileRead(7, 4096)", "FileRead(7, 8189)", "FileClose(7)"));
}

TEST_F(ReadFile, PutsAFileTogetherFromPiecesOfAnySize) {
  AnswerVerdict(host, kReadable);
  host.Answer("FileExists", 1);
  host.Answer("FileOpen", 7);
  host.Answer("FileGetSize", 7);
  // The mark itself arrives in pieces.
  for (const char* piece : {"\xEF", "\xBB", "\xBF", "ab", "c", "d"}) {
    host.AnswerBytes("FileRead", piece);
  }
  host.Answer("FileRead", 0);

  EXPECT_EQ(Run("CoreUtilsReadFile", ReadParameters(kPath, 0, 7)), ContentOutcome("abcd"));
}

TEST_F(ReadFile, UnderstandsALengthOf64BitsThatFitsInto32) {
  const std::pair<int64_t, const char*> lengths[] = {
      {0, ""}, {3, "hel"}, {5, "hello"}, {0x80000000LL, "hello"}, {0xFFFFFFFFLL, "hello"}};
  for (const auto& [length, text] : lengths) {
    ZelContainer params = Texts({{"Path", kPath}});
    params.SetInt64("Length", length, kNoIndex);
    AnswerReadableFile(host, "hello");

    EXPECT_EQ(Run("CoreUtilsReadFile", params), ContentOutcome(text)) << length;
  }
}

TEST_F(ReadFile, TakesALengthThatIsATextForAbsent) {
  AnswerReadableFile(host, "hello");

  EXPECT_EQ(Run("CoreUtilsReadFile", Texts({{"Path", kPath}, {"Length", "5"}})),
            TextOutcome(kSuccess, ""));

  EXPECT_EQ(host.Transcript()[0], "Detail \"Reading file C:\\in\\a.txt (offset 0, length 0)\"");
}

TEST_F(ReadFile, AsksNoPrivacyPolicyAboutUrls) {
  host.Answer("FileExists", 1);
  AnswerLoading(host, "hello");

  EXPECT_EQ(Run("CoreUtilsReadFile", ReadParameters("http://files.example/a.txt", 0, 5)),
            ContentOutcome("hello"));

  EXPECT_EQ(host.Transcript()[1], "FileExists(\"http://files.example/a.txt\")");
}

TEST_F(ReadFile, TakesHandleZeroForAnOpenedFile) {
  AnswerVerdict(host, kReadable);
  host.Answer("FileExists", 1);
  host.Answer("FileOpen", 0);
  host.Answer("FileGetSize", 5);
  host.AnswerBytes("FileRead", "hello");
  host.Answer("FileRead", 0);

  EXPECT_EQ(Run("CoreUtilsReadFile", ReadParameters(kPath, 0, 5)), ContentOutcome("hello"));

  EXPECT_THAT(After(5, host.Transcript()),
              ElementsAre("FileRead(0, 4096)", "FileRead(0, 8187)", "FileClose(0)"));
}

TEST_F(ReadFile, TakesEveryAnswerButZeroForAFileThatExists) {
  for (const int answer : {-1, 2, INT_MIN}) {
    AnswerVerdict(host, kReadable);
    host.Answer("FileExists", answer);
    AnswerLoading(host, "hello");

    EXPECT_EQ(Run("CoreUtilsReadFile", ReadParameters(kPath, 0, 5)), ContentOutcome("hello"))
        << answer;
  }
}

// ---- Write ----

const std::string kWriting = "Detail \"Writing file C:\\in\\a.txt\"";
const std::string kExists = "FileExists(\"C:\\in\\a.txt\")";
const std::string kTemporaryExists = "FileExists(\"C:\\in\\a.txt.tmp0\")";
const std::string kCreate = "FileCreate(\"C:\\in\\a.txt\", 0)";
const std::string kSave = "FileCopy(\"C:\\in\\a.txt\", \"C:\\in\\a.txt.tmp0\", 0)";
const std::string kDelete = "FileDelete(\"C:\\in\\a.txt\", 0)";
const std::string kBringBack = "FileCopy(\"C:\\in\\a.txt.tmp0\", \"C:\\in\\a.txt\", 0)";
const std::string kDeleteTemporary = "FileDelete(\"C:\\in\\a.txt.tmp0\", 0)";
const std::string kWriteMark = "FileWrite(8, \"\\xef\\xbb\\xbf\", 3)";
const std::string kWriteHello = "FileWrite(8, \"hello\", 5)";
const std::string kClose = "FileClose(8)";

class WriteFile : public ModuleTest {
 protected:
  /// Scripts an existing file up to the question for its temporary copy's name.
  void AnswerExisting(const std::string& content) {
    AnswerVerdict(host, kWritable);
    host.Answer("FileExists", 1);
    AnswerLoading(host, content);
    host.Answer("FileExists", 0);
  }
  /// Scripts the way to the opened, empty file.
  void AnswerReplacement() {
    host.Answer("FileCopy", 0);
    host.Answer("FileDelete", 0);
    host.Answer("FileCreate", 8);
  }
  void AnswerRestoring() {
    host.Answer("FileCopy", 0);
    host.Answer("FileDelete", 0);
  }
  Outcome Write(const ZelString& base64) {
    return Run("CoreUtilsWriteFile", WriteParameters(kPath, base64));
  }
  /// The calls from the first copy on.
  std::vector<std::string> FromTheCopyOn() const {
    const std::vector<std::string>& lines = host.Transcript();
    size_t first = 0;
    while (first < lines.size() && !lines[first].starts_with("FileCopy(")) ++first;
    return After(first, lines);
  }
  void AnswerWriting(int64_t content) {
    host.Answer("FileWrite", 3);
    if (content > 0) host.Answer("FileWrite", content);
    host.Answer("FileDelete", 0);
  }
};

TEST_F(WriteFile, ReplacesAnExistingFileThroughATemporaryCopy) {
  AnswerExisting("old");
  AnswerReplacement();
  AnswerWriting(5);

  EXPECT_EQ(Write(Base64("hello")), (Outcome{kSuccess, "{}"}));

  EXPECT_THAT(
      host.Transcript(),
      ElementsAre(kWriting, PrivacyCheck(kPath, "maria", "Write"), kExists,
                  "FileOpen(\"C:\\in\\a.txt\", 0)", "FileGetSize(\"C:\\in\\a.txt\")",
                  "FileRead(7, 4096)", "FileRead(7, 8189)", "FileClose(7)", kTemporaryExists, kSave,
                  kDelete, kCreate, kWriteMark, kWriteHello, kDeleteTemporary, kClose));
}

TEST_F(WriteFile, CreatesAFileThatDoesNotExist) {
  AnswerVerdict(host, kWritable);
  host.Answer("FileExists", 0);
  host.Answer("FileCreate", 9);
  host.Answer("FileExists", 0);
  AnswerReplacement();
  AnswerWriting(5);

  EXPECT_EQ(Write(Base64("hello")), (Outcome{kSuccess, "{}"}));

  EXPECT_THAT(host.Transcript(),
              ElementsAre(kWriting, PrivacyCheck(kPath, "maria", "Write"), kExists, kCreate,
                          "FileClose(9)", kTemporaryExists, kSave, kDelete, kCreate, kWriteMark,
                          kWriteHello, kDeleteTemporary, kClose));
}

TEST_F(WriteFile, TakesAbsentParametersAsEmpty) {
  AnswerExisting("");
  AnswerReplacement();
  AnswerWriting(0);

  EXPECT_EQ(Run("CoreUtilsWriteFile", {}), (Outcome{kSuccess, "{}"}));

  EXPECT_EQ(host.Transcript()[0], "Detail \"Writing file \"");
  EXPECT_EQ(host.Transcript()[1], PrivacyCheck("", "", "Write"));
}

TEST_F(WriteFile, TakesTextsThatAreListsOrNumbersForEmpty) {
  for (const ZelContainer& params :
       ListsAndNumbers({"Path", "FileContent", "DACurrentConsoleUser"})) {
    host.ForgetTranscript();
    AnswerExisting("");
    AnswerReplacement();
    AnswerWriting(0);

    EXPECT_EQ(Run("CoreUtilsWriteFile", params), (Outcome{kSuccess, "{}"}));

    EXPECT_EQ(host.Transcript()[0], "Detail \"Writing file \"");
    EXPECT_EQ(host.Transcript()[1], PrivacyCheck("", "", "Write"));
  }
}

TEST_F(WriteFile, IsRefusedWithoutThePermissionToWrite) {
  for (const int32_t verdict : {kForbidden, kReadable}) {
    host.ForgetTranscript();
    AnswerVerdict(host, verdict);

    EXPECT_EQ(Write(Base64("hello")), TextOutcome(kAccessRefused, ""));

    EXPECT_THAT(host.Transcript(), ElementsAre(kWriting, PrivacyCheck(kPath, "maria", "Write")));
  }
}

TEST_F(WriteFile, IsRefusedWhenThePolicyCannotBeAsked) {
  host.AnswerInvocation(kInvokeUnknownAction);

  EXPECT_EQ(Write(Base64("hello")), TextOutcome(kAccessRefused, ""));
}

TEST_F(WriteFile, TakesTheParametersOutBeforeItsFirstCall) {
  AnswerExisting("old");
  AnswerReplacement();
  AnswerWriting(5);

  EXPECT_THAT(KeysAtEachCall("CoreUtilsWriteFile", WriteParameters(kPath, Base64("hello"))),
              AllOf(SizeIs(16), Each(0)));
}

TEST_F(WriteFile, DropsKeysThatItDoesNotKnow) {
  AnswerExisting("old");
  AnswerReplacement();
  AnswerWriting(5);
  ZelContainer params = WriteParameters(kPath, Base64("hello"));
  params.SetString("Result", "mine", kNoIndex);
  params.SetString("Other", "mine", kNoIndex);

  EXPECT_EQ(Run("CoreUtilsWriteFile", params), (Outcome{kSuccess, "{}"}));
}

TEST_F(WriteFile, RefusesUtf16AndUtf32) {
  for (const std::string& mark :
       {kUtf16BigMark, kUtf16LittleMark, kUtf32BigMark, kUtf32LittleMark}) {
    host.ForgetTranscript();
    AnswerVerdict(host, kWritable);
    host.Answer("FileExists", 1);
    AnswerLoading(host, mark + "abc");

    EXPECT_EQ(Write(Base64("hello")), kUnsupported);

    EXPECT_EQ(host.Transcript().back(), "FileClose(7)");
  }
}

TEST_F(WriteFile, WritesTheMarkAloneForEmptyContent) {
  AnswerExisting("old");
  AnswerReplacement();
  AnswerWriting(0);

  EXPECT_EQ(Write(""), (Outcome{kSuccess, "{}"}));

  EXPECT_THAT(FromTheCopyOn(),
              ElementsAre(kSave, kDelete, kCreate, kWriteMark, kDeleteTemporary, kClose));
}

TEST_F(WriteFile, GivesAFileWithAMarkItsMarkBack) {
  AnswerExisting(kUtf8Mark + "old");
  AnswerReplacement();
  AnswerWriting(5);

  EXPECT_EQ(Write(Base64("hello")), (Outcome{kSuccess, "{}"}));

  EXPECT_THAT(FromTheCopyOn(), ElementsAre(kSave, kDelete, kCreate, kWriteMark, kWriteHello,
                                           kDeleteTemporary, kClose));
}

TEST_F(WriteFile, WritesTheDecodedBytesWhateverTheyAre) {
  AnswerExisting("old");
  AnswerReplacement();
  AnswerWriting(5);

  EXPECT_EQ(Write(Base64("\0\xFF\xC3\r\n"s)), (Outcome{kSuccess, "{}"}));

  EXPECT_EQ(FromTheCopyOn()[4], "FileWrite(8, \"\\x00\\xff\\xc3\\x0d\\x0a\", 5)");
}

TEST_F(WriteFile, WritesASingleByteToo) {
  AnswerExisting("old");
  AnswerReplacement();
  AnswerWriting(1);

  EXPECT_EQ(Write(Base64("x")), (Outcome{kSuccess, "{}"}));

  EXPECT_EQ(FromTheCopyOn()[4], "FileWrite(8, \"x\", 1)");
}

TEST_F(WriteFile, LeavesAMarkInTheContentBehindItsOwn) {
  AnswerExisting("old");
  AnswerReplacement();
  AnswerWriting(8);

  EXPECT_EQ(Write(Base64(kUtf8Mark + "hello")), (Outcome{kSuccess, "{}"}));

  EXPECT_THAT(FromTheCopyOn(),
              ElementsAre(kSave, kDelete, kCreate, kWriteMark,
                          "FileWrite(8, \"\\xef\\xbb\\xbfhello\", 8)", kDeleteTemporary, kClose));
}

TEST_F(WriteFile, AsksNoPrivacyPolicyAboutUrls) {
  const char* url = "http://files.example/a.txt";
  host.Answer("FileExists", 0);
  host.Answer("FileCreate", 9);
  host.Answer("FileExists", 0);
  AnswerReplacement();
  AnswerWriting(5);

  EXPECT_EQ(Run("CoreUtilsWriteFile", WriteParameters(url, Base64("hello"))),
            (Outcome{kSuccess, "{}"}));

  EXPECT_EQ(host.Transcript()[1], "FileExists(\"http://files.example/a.txt\")");
}

TEST_F(WriteFile, TakesHandleZeroForACreatedFile) {
  AnswerVerdict(host, kWritable);
  host.Answer("FileExists", 0);
  host.Answer("FileCreate", 0);
  host.Answer("FileExists", 0);
  host.Answer("FileCopy", 0);
  host.Answer("FileDelete", 0);
  host.Answer("FileCreate", 0);
  AnswerWriting(5);

  EXPECT_EQ(Write(Base64("hello")), (Outcome{kSuccess, "{}"}));

  EXPECT_THAT(After(3, host.Transcript()),
              ElementsAre(kCreate, "FileClose(0)", kTemporaryExists, kSave, kDelete, kCreate,
                          "FileWrite(0, \"\\xef\\xbb\\xbf\", 3)", "FileWrite(0, \"hello\", 5)",
                          kDeleteTemporary, "FileClose(0)"));
}

TEST_F(WriteFile, TellsTheFormOfAFileThatIsOpenedWithHandleZero) {
  AnswerVerdict(host, kWritable);
  host.Answer("FileExists", 1);
  host.Answer("FileOpen", 0);
  host.Answer("FileGetSize", 2);
  host.AnswerBytes("FileRead", kUtf16LittleMark);
  host.Answer("FileRead", 0);

  EXPECT_EQ(Write(Base64("hello")), kUnsupported);
}

TEST_F(WriteFile, TakesEveryAnswerButZeroForAFileThatExists) {
  for (const int answer : {-1, 2, INT_MIN}) {
    host.ForgetTranscript();
    AnswerVerdict(host, kWritable);
    host.Answer("FileExists", answer);
    AnswerLoading(host, "old");
    // The first temporary name is taken, the second is free.
    host.Answer("FileExists", answer);
    host.Answer("FileExists", 0);
    AnswerReplacement();
    AnswerWriting(5);

    EXPECT_EQ(Write(Base64("hello")), (Outcome{kSuccess, "{}"})) << answer;

    EXPECT_EQ(FromTheCopyOn().front(), "FileCopy(\"C:\\in\\a.txt\", \"C:\\in\\a.txt.tmp1\", 0)")
        << answer;
  }
}

TEST_F(WriteFile, TakesAFileThatCannotBeLoadedAsUtf8) {
  // The file cannot be opened, and it cannot be read on.
  for (const bool isOpened : {false, true}) {
    host.ForgetTranscript();
    AnswerVerdict(host, kWritable);
    host.Answer("FileExists", 1);
    host.Answer("FileOpen", isOpened ? 7 : -1);
    if (isOpened) {
      host.Answer("FileGetSize", 8);
      host.AnswerBytes("FileRead", kUtf16LittleMark);
      host.Answer("FileRead", kFailedRead);
    }
    host.Answer("FileExists", 0);
    AnswerReplacement();
    AnswerWriting(5);

    EXPECT_EQ(Write(Base64("hello")), (Outcome{kSuccess, "{}"}));

    EXPECT_THAT(FromTheCopyOn(), ElementsAre(kSave, kDelete, kCreate, kWriteMark, kWriteHello,
                                             kDeleteTemporary, kClose));
  }
}

TEST_F(WriteFile, CountsUntilATemporaryNameIsFree) {
  AnswerVerdict(host, kWritable);
  host.Answer("FileExists", 1);
  AnswerLoading(host, "old");
  for (int i = 0; i < 11; ++i) host.Answer("FileExists", 1);
  host.Answer("FileExists", 0);
  AnswerReplacement();
  AnswerWriting(5);

  EXPECT_EQ(Write(Base64("hello")), (Outcome{kSuccess, "{}"}));

  EXPECT_EQ(host.Transcript()[8], "FileExists(\"C:\\in\\a.txt.tmp0\")");
  EXPECT_EQ(host.Transcript()[9], "FileExists(\"C:\\in\\a.txt.tmp1\")");
  EXPECT_EQ(FromTheCopyOn().front(), "FileCopy(\"C:\\in\\a.txt\", \"C:\\in\\a.txt.tmp11\", 0)");
}

TEST_F(WriteFile, KeepsPercentSignsOfThePathInTheTemporaryName) {
  const char* odd = "C:/100%S%u.txt";
  AnswerVerdict(host, kWritable);
  host.Answer("FileExists", 1);
  AnswerLoading(host, "old");
  host.Answer("FileExists", 0);
  host.Answer("FileCopy", 5);

  Run("CoreUtilsWriteFile", WriteParameters(odd, Base64("hello")));

  EXPECT_EQ(host.Transcript().back(), "FileCopy(\"C:/100%S%u.txt\", \"C:/100%S%u.txt.tmp0\", 0)");
}

// What can fail, in the order of the calls.

TEST_F(WriteFile, FailsWhenANewFileCannotBeCreated) {
  AnswerVerdict(host, kWritable);
  host.Answer("FileExists", 0);
  host.Answer("FileCreate", -1);

  EXPECT_EQ(Write(Base64("hello")), TextOutcome(kFailure, ""));

  EXPECT_THAT(host.Transcript(),
              ElementsAre(kWriting, PrivacyCheck(kPath, "maria", "Write"), kExists, kCreate));
}

TEST_F(WriteFile, FailsWhenTheTemporaryCopyCannotBeMade) {
  for (const int error : {1, -1, 5}) {
    host.ForgetTranscript();
    AnswerExisting("old");
    host.Answer("FileCopy", error);

    EXPECT_EQ(Write(Base64("hello")), TextOutcome(kFailure, ""));

    EXPECT_THAT(FromTheCopyOn(), ElementsAre(kSave));
  }
}

TEST_F(WriteFile, TakesTheTemporaryAwayWhenTheFileCannotBeDeleted) {
  for (const int error : {1, -1, 5}) {
    host.ForgetTranscript();
    AnswerExisting("old");
    host.Answer("FileCopy", 0);
    host.Answer("FileDelete", error);
    host.Answer("FileDelete", 0);

    EXPECT_EQ(Write(Base64("hello")), TextOutcome(kFailure, ""));

    EXPECT_THAT(FromTheCopyOn(), ElementsAre(kSave, kDelete, kDeleteTemporary));
  }
}

TEST_F(WriteFile, BringsTheOldContentBackWhenTheFileCannotBeCreatedAgain) {
  AnswerExisting("old");
  host.Answer("FileCopy", 0);
  host.Answer("FileDelete", 0);
  host.Answer("FileCreate", -1);
  AnswerRestoring();

  EXPECT_EQ(Write(Base64("hello")), TextOutcome(kFailure, ""));

  EXPECT_THAT(FromTheCopyOn(), ElementsAre(kSave, kDelete, kCreate, kBringBack, kDeleteTemporary));
}

TEST_F(WriteFile, BringsTheOldContentBackForContentThatIsNoBase64) {
  for (const char* content : {"a", "aGVsbG8", "aGVsbG8=x", "aGVs!G8=", "====", "\xC3\xA9"}) {
    host.ForgetTranscript();
    AnswerExisting("old");
    AnswerReplacement();
    AnswerRestoring();

    EXPECT_EQ(Write(content), (Outcome{kFailure, "{}"})) << content;

    EXPECT_THAT(FromTheCopyOn(),
                ElementsAre(kSave, kDelete, kCreate, kBringBack, kDeleteTemporary, kClose))
        << content;
  }
}

TEST_F(WriteFile, AcceptsLineBreaksInBase64) {
  AnswerExisting("old");
  AnswerReplacement();
  AnswerWriting(5);

  EXPECT_EQ(Write("aGVs\r\nbG8=\n"), (Outcome{kSuccess, "{}"}));

  EXPECT_EQ(FromTheCopyOn()[4], kWriteHello);
}

TEST_F(WriteFile, BringsTheOldContentBackWhenTheMarkCannotBeWritten) {
  AnswerExisting("old");
  AnswerReplacement();
  host.Answer("FileWrite", 0xFFFFFFFF);
  host.Answer("FileWrite", 0);
  AnswerRestoring();

  EXPECT_EQ(Write(Base64("hello")), TextOutcome(kFailure, ""));

  EXPECT_THAT(FromTheCopyOn(), ElementsAre(kSave, kDelete, kCreate, kWriteMark, kWriteHello,
                                           kBringBack, kDeleteTemporary, kClose));
}

TEST_F(WriteFile, BringsTheOldContentBackWhenTheContentCannotBeWritten) {
  AnswerExisting("old");
  AnswerReplacement();
  host.Answer("FileWrite", 3);
  // What a failed write answers after three bytes.
  host.Answer("FileWrite", 0xFFFFFFFF - 3);
  AnswerRestoring();

  EXPECT_EQ(Write(Base64("hello")), TextOutcome(kFailure, ""));

  EXPECT_THAT(FromTheCopyOn(), ElementsAre(kSave, kDelete, kCreate, kWriteMark, kWriteHello,
                                           kBringBack, kDeleteTemporary, kClose));
}

TEST_F(WriteFile, BringsTheOldContentBackWhenTheMarkAloneCannotBeWritten) {
  AnswerExisting("old");
  AnswerReplacement();
  host.Answer("FileWrite", 0xFFFFFFFF);
  AnswerRestoring();

  EXPECT_EQ(Write(""), TextOutcome(kFailure, ""));

  EXPECT_THAT(FromTheCopyOn(), ElementsAre(kSave, kDelete, kCreate, kWriteMark, kBringBack,
                                           kDeleteTemporary, kClose));
}

TEST_F(WriteFile, DeletesTheTemporaryEvenWhenTheOldContentCannotBeBroughtBack) {
  for (const int error : {1, -1, 5}) {
    host.ForgetTranscript();
    AnswerExisting("old");
    AnswerReplacement();
    host.Answer("FileWrite", 3);
    host.Answer("FileWrite", 0xFFFFFFFF - 3);
    host.Answer("FileCopy", error);
    host.Answer("FileDelete", 0);

    EXPECT_EQ(Write(Base64("hello")), TextOutcome(kFailure, ""));

    EXPECT_THAT(FromTheCopyOn(), ElementsAre(kSave, kDelete, kCreate, kWriteMark, kWriteHello,
                                             kBringBack, kDeleteTemporary, kClose));
  }
}

TEST_F(WriteFile, DeletesTheTemporaryEvenWhenNeitherTheFileNorItsOldContentComesBack) {
  AnswerExisting("old");
  host.Answer("FileCopy", 0);
  host.Answer("FileDelete", 0);
  host.Answer("FileCreate", -1);
  host.Answer("FileCopy", 5);
  host.Answer("FileDelete", 0);

  EXPECT_EQ(Write(Base64("hello")), TextOutcome(kFailure, ""));

  EXPECT_THAT(FromTheCopyOn(), ElementsAre(kSave, kDelete, kCreate, kBringBack, kDeleteTemporary));
}

TEST_F(WriteFile, LeavesTheTemporaryWhenItCannotBeDeleted) {
  AnswerExisting("old");
  AnswerReplacement();
  host.Answer("FileWrite", 3);
  host.Answer("FileWrite", 5);
  host.Answer("FileDelete", 5);

  EXPECT_EQ(Write(Base64("hello")), (Outcome{kSuccess, "{}"}));
}

TEST_F(WriteFile, WritesLargeContentAtOnce) {
  const std::string large(1 << 20, 'x');
  AnswerExisting("old");
  AnswerReplacement();
  AnswerWriting(1 << 20);

  EXPECT_EQ(Write(Base64(large)), (Outcome{kSuccess, "{}"}));

  EXPECT_EQ(FromTheCopyOn()[4], "FileWrite(8, \"" + large + "\", 1048576)");
}

}  // namespace
