// Text in the code page of the system.

#include <string>
#include <vector>

#include "tests/contract/content_script.h"

namespace {

using namespace std::string_literals;

constexpr uint32_t kFailedRead = 0xFFFFFFFF;
constexpr const char* kPath = "C:/a.txt";
/// No UTF-8: text of the code page.
const std::string kOld = "\xE9t\xE9";

std::vector<std::string> LastLines(const std::vector<std::string>& lines, size_t count) {
  return {lines.end() - static_cast<ptrdiff_t>(count), lines.end()};
}

// ---- Read ----

class ReadFileInCodePage : public ModuleTest {
 protected:
  Outcome Read(uint32_t length) {
    return Run("CoreUtilsReadFile", ReadParameters(kPath, 0, length));
  }
  /// The bytes of `content` that are read, each as the character of its number.
  void AnswerConversion(const std::string& content) {
    std::string wide;
    for (const char byte : content) wide += {byte, '\0'};
    const auto count = static_cast<int64_t>(content.size());
    host.Answer("MultiByteToWideChar", count);
    host.AnswerBytes("MultiByteToWideChar", wide, count);
  }
};

TEST_F(ReadFileInCodePage, ConvertsTextOfTheCodePageInTwoSteps) {
  AnswerReadableFile(host, kOld);
  AnswerConversion(kOld);

  EXPECT_EQ(Read(3), ContentOutcome("\xC3\xA9t\xC3\xA9"));

  EXPECT_THAT(LastLines(host.Transcript(), 3),
              ElementsAre("FileClose(7)", "MultiByteToWideChar(0, 0, \"\\xe9t\\xe9\", 3, null, 0)",
                          "MultiByteToWideChar(0, 0, \"\\xe9t\\xe9\", 3, given, 3)"));
}

TEST_F(ReadFileInCodePage, ConvertsNoMoreThanTheLengthAndTheFile) {
  AnswerReadableFile(host, kOld);
  AnswerConversion("\xE9t");
  EXPECT_EQ(Read(2), ContentOutcome("\xC3\xA9t"));

  AnswerReadableFile(host, kOld);
  AnswerConversion(kOld);
  EXPECT_EQ(Read(0xFFFFFFFF), ContentOutcome("\xC3\xA9t\xC3\xA9"));
}

TEST_F(ReadFileInCodePage, TakesTextThatEndsInsideACharacterForTheCodePage) {
  AnswerReadableFile(host, "a\xC3");
  AnswerConversion("a\xC3");

  EXPECT_EQ(Read(2), ContentOutcome("a\xC3\x83"));
}

TEST_F(ReadFileInCodePage, LooksForInvalidUtf8InTheWholeFile) {
  for (const size_t validBytes : {4096U, 5000U, 100000U}) {
    const std::string valid(validBytes, 'x');
    const std::string content = valid + "\xE9t";
    AnswerReadableFile(host, content);
    AnswerConversion(content);

    EXPECT_EQ(Read(0xFFFFFFFF), ContentOutcome(valid + "\xC3\xA9t")) << validBytes;
  }
}

TEST_F(ReadFileInCodePage, TakesMarksCutShortForTheCodePage) {
  for (const std::string& content :
       {"\xFF"s, "\xFE"s, "\xEF"s, "\xEF\xBB"s, "\xFE\xFE"s, "\xFF\xFF"s, "\0\0\xFE"s,
        "\0\0\xFE\xFE"s, "\0\xFF\xFE"s, "\xEF\xBB\x41"s}) {
    AnswerReadableFile(host, content);
    AnswerConversion(content);

    EXPECT_EQ(Read(4).code, kSuccess);
  }
}

TEST_F(ReadFileInCodePage, AnswersNothingWhenNothingCanBeConverted) {
  AnswerReadableFile(host, kOld);
  host.Answer("MultiByteToWideChar", 0);

  EXPECT_EQ(Read(3), TextOutcome(kSuccess, ""));
}

TEST_F(ReadFileInCodePage, AnswersNothingForNoBytesOfTheCodePage) {
  AnswerReadableFile(host, kOld);
  host.Answer("MultiByteToWideChar", 0);

  EXPECT_EQ(Read(0), TextOutcome(kSuccess, ""));

  EXPECT_EQ(host.Transcript().back(), "MultiByteToWideChar(0, 0, \"\", 0, null, 0)");
}

TEST_F(ReadFileInCodePage, FailsWithoutAResultWhenTheSecondConversionFails) {
  AnswerReadableFile(host, kOld);
  host.Answer("MultiByteToWideChar", 3);
  host.Answer("MultiByteToWideChar", 0);

  EXPECT_EQ(Read(3), (Outcome{kFailure, "{}"}));
}

TEST_F(ReadFileInCodePage, AnswersNothingWhenTheFileCannotBeOpened) {
  host.Answer("FileExists", 1);
  AnswerVerdict(host, kReadable);
  host.Answer("FileOpen", -1);
  host.Answer("MultiByteToWideChar", 0);

  EXPECT_EQ(Read(3), TextOutcome(kSuccess, ""));

  EXPECT_THAT(
      LastLines(host.Transcript(), 2),
      ElementsAre("FileOpen(\"C:/a.txt\", 0)", "MultiByteToWideChar(0, 0, null, 0, null, 0)"));
}

TEST_F(ReadFileInCodePage, AnswersNothingWhenTheFileCannotBeReadToItsEnd) {
  host.Answer("FileExists", 1);
  AnswerVerdict(host, kReadable);
  host.Answer("FileOpen", 7);
  host.Answer("FileGetSize", 8);
  host.AnswerBytes("FileRead", "begin");
  host.Answer("FileRead", kFailedRead);
  host.Answer("MultiByteToWideChar", 0);

  EXPECT_EQ(Read(8), TextOutcome(kSuccess, ""));

  EXPECT_THAT(LastLines(host.Transcript(), 2),
              ElementsAre("FileClose(7)", "MultiByteToWideChar(0, 0, null, 0, null, 0)"));
}

// ---- Write ----

class WriteFileInCodePage : public ModuleTest {
 protected:
  Outcome Write(const std::string& utf8) {
    return Run("CoreUtilsWriteFile", WriteParameters(kPath, Base64(utf8)));
  }
};

constexpr const char* kDeleteTemporary = "FileDelete(\"C:/a.txt.tmp0\", 0)";
constexpr const char* kBringBack = "FileCopy(\"C:/a.txt.tmp0\", \"C:/a.txt\", 0)";

TEST_F(WriteFileInCodePage, ConvertsToTheCodePageOfTheOldContentWithoutAMark) {
  AnswerReplacement(host, kOld);
  host.Answer("WideCharToMultiByte", 2);
  host.AnswerBytes("WideCharToMultiByte", "n\xE9");
  host.Answer("FileWrite", 2);
  host.Answer("FileDelete", 0);

  EXPECT_EQ(Write("n\xC3\xA9"), (Outcome{kSuccess, "{}"}));

  EXPECT_THAT(LastLines(host.Transcript(), 5),
              ElementsAre("WideCharToMultiByte(0, 0, \"n\xC3\xA9\", 2, null, 0, null, null)",
                          "WideCharToMultiByte(0, 0, \"n\xC3\xA9\", 2, given, 2, null, null)",
                          "FileWrite(8, \"n\\xe9\", 2)", kDeleteTemporary, "FileClose(8)"));
}

TEST_F(WriteFileInCodePage, CountsCharactersBeyondTheBasicPlaneAsTwo) {
  AnswerReplacement(host, kOld);
  host.Answer("WideCharToMultiByte", 1);
  host.AnswerBytes("WideCharToMultiByte", "?");
  host.Answer("FileWrite", 1);
  host.Answer("FileDelete", 0);

  EXPECT_EQ(Write("\xF0\x9F\x98\x80"), (Outcome{kSuccess, "{}"}));

  EXPECT_EQ(LastLines(host.Transcript(), 5).front(),
            "WideCharToMultiByte(0, 0, \"\xF0\x9F\x98\x80\", 2, null, 0, null, null)");
}

TEST_F(WriteFileInCodePage, SucceedsWhenLessIsWrittenThanWasAsked) {
  for (const int written : {4, 1, 0}) {
    host.ForgetTranscript();
    AnswerReplacement(host, kOld);
    host.Answer("WideCharToMultiByte", 5);
    host.AnswerBytes("WideCharToMultiByte", "hello");
    host.Answer("FileWrite", written);
    host.Answer("FileDelete", 0);

    EXPECT_EQ(Write("hello"), (Outcome{kSuccess, "{}"})) << written;

    EXPECT_THAT(LastLines(host.Transcript(), 3),
                ElementsAre("FileWrite(8, \"hello\", 5)", kDeleteTemporary, "FileClose(8)"));
  }
}

TEST_F(WriteFileInCodePage, LeavesAnEmptyFileForEmptyContent) {
  AnswerReplacement(host, kOld);
  host.Answer("WideCharToMultiByte", 0);
  host.Answer("FileDelete", 0);

  EXPECT_EQ(Write(""), (Outcome{kSuccess, "{}"}));

  EXPECT_THAT(LastLines(host.Transcript(), 3),
              ElementsAre("WideCharToMultiByte(0, 0, \"\", 0, null, 0, null, null)",
                          kDeleteTemporary, "FileClose(8)"));
}

TEST_F(WriteFileInCodePage, WritesNothingWhenTheConversionsDisagree) {
  for (const char* second : {"", "h", "hell"}) {
    host.ForgetTranscript();
    AnswerReplacement(host, kOld);
    host.Answer("WideCharToMultiByte", 5);
    host.AnswerBytes("WideCharToMultiByte", second);
    host.Answer("FileDelete", 0);

    EXPECT_EQ(Write("hello"), (Outcome{kSuccess, "{}"}));

    EXPECT_THAT(LastLines(host.Transcript(), 3),
                ElementsAre("WideCharToMultiByte(0, 0, \"hello\", 5, given, 5, null, null)",
                            kDeleteTemporary, "FileClose(8)"));
  }
}

TEST_F(WriteFileInCodePage, BringsTheOldContentBackWhenConvertedTextCannotBeWritten) {
  AnswerReplacement(host, kOld);
  host.Answer("WideCharToMultiByte", 5);
  host.AnswerBytes("WideCharToMultiByte", "hello");
  host.Answer("FileWrite", 0xFFFFFFFF);
  host.Answer("FileCopy", 0);
  host.Answer("FileDelete", 0);

  EXPECT_EQ(Write("hello"), TextOutcome(kFailure, ""));

  EXPECT_THAT(LastLines(host.Transcript(), 4), ElementsAre("FileWrite(8, \"hello\", 5)", kBringBack,
                                                           kDeleteTemporary, "FileClose(8)"));
}

TEST_F(WriteFileInCodePage, DeletesTheTemporaryEvenWhenTheOldContentCannotBeBroughtBack) {
  AnswerReplacement(host, kOld);
  host.Answer("WideCharToMultiByte", 5);
  host.AnswerBytes("WideCharToMultiByte", "hello");
  host.Answer("FileWrite", 0xFFFFFFFF);
  host.Answer("FileCopy", 5);
  host.Answer("FileDelete", 0);

  EXPECT_EQ(Write("hello"), TextOutcome(kFailure, ""));

  EXPECT_THAT(LastLines(host.Transcript(), 4), ElementsAre("FileWrite(8, \"hello\", 5)", kBringBack,
                                                           kDeleteTemporary, "FileClose(8)"));
}

TEST_F(WriteFileInCodePage, BringsTheOldContentBackWhenTheConversionBreaksOff) {
  AnswerReplacement(host, kOld);
  host.Answer("FileCopy", 0);
  host.Answer("FileDelete", 0);
  // The last call before anything is written.
  constexpr size_t kConversion = 13;
  host.FailCall(kConversion, FakeHost::Fault::kThrowOnce);

  EXPECT_EQ(Write("hello"), (Outcome{kFailure, "{}"}));

  EXPECT_EQ(host.Transcript()[kConversion - 1],
            "WideCharToMultiByte(0, 0, \"hello\", 5, null, 0, null, null)");
  EXPECT_THAT(LastLines(host.Transcript(), 4),
              ElementsAre(kBringBack, kDeleteTemporary, "FileClose(8)",
                          "Error \"CoreUtilsWriteFile failed: host call 13 failed\""));
}

}  // namespace
