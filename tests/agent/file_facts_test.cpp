#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "agent/libZel/file_facts.h"
#include "libZel/file.h"
#include "tests/agent/temporary_directory.h"

namespace fs = std::filesystem;

namespace {

constexpr uint32_t kTypeBits = 0170000;
constexpr uint32_t kRegular = 0100000;
constexpr uint32_t kDirectory = 0040000;

// What no file has: asked about them, every function answers that it cannot tell.
void ExpectNoFacts(const ZelString& path) {
  EXPECT_EQ(FileGetAttributes(path), 0xFFFFFFFF) << path.Utf8();
  EXPECT_EQ(FileGetSize64(path), -1) << path.Utf8();
  EXPECT_EQ(FileGetWriteTime(path), 0xFFFFFFFF) << path.Utf8();
  EXPECT_EQ(FileGetMode(path), 0u) << path.Utf8();
  EXPECT_EQ(FileIsAscii(path), 0) << path.Utf8();
}

TEST(FileFacts, AreUnknownForWhatIsNoEntry) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("file"), "x");
  ExpectNoFacts(directory / "missing");
  ExpectNoFacts(directory / "file/");
  ExpectNoFacts(directory / "file\\");
  ExpectNoFacts(directory / "file/below");
  ExpectNoFacts("");
  ExpectNoFacts("http://localhost:1/file");
  ExpectNoFacts("https://user@localhost/");
  ExpectNoFacts(ZelString(std::string_view("/\0", 2)));
}

TEST(FileGetSize64, CountsBytesBeyond4GiB) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("file"), "");
  EXPECT_EQ(FileGetSize64(directory / "file"), 0);
  fs::resize_file(directory.Native("file"), (uint64_t{1} << 32) + 7);
  EXPECT_EQ(FileGetSize64(directory / "file"), (int64_t{1} << 32) + 7);
}

TEST(FileGetSize64, IsUnknownForADirectory) {
  const TemporaryDirectory directory;
  EXPECT_EQ(FileGetSize64(directory / ""), -1);
}

TEST(FileGetAttributes, TellsDirectoriesFromFiles) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("file"), "x");
  fs::create_directory(directory.Native("sub"));
  EXPECT_EQ(FileGetAttributes(directory / "file"), 128u);
  EXPECT_EQ(FileGetAttributes(directory / "sub"), 16u);
  EXPECT_EQ(FileGetAttributes(directory / "sub/"), 16u);
}

TEST(FileGetAttributes, MarksAFileThatNobodyMayWrite) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("file"), "x");
  fs::permissions(directory.Native("file"),
                  fs::perms::owner_read | fs::perms::group_read | fs::perms::others_read);
  EXPECT_EQ(FileGetAttributes(directory / "file"), 1u);
  EXPECT_EQ(FileGetMode(directory / "file"), kRegular | 0444);
  fs::permissions(directory.Native("file"), fs::perms::owner_write, fs::perm_options::add);
}

TEST(FileGetMode, TellsTheTypeAndWhoMayRead) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("file"), "x");
  fs::create_directory(directory.Native("sub"));
  EXPECT_EQ(FileGetMode(directory / "file") & kTypeBits, kRegular);
  EXPECT_EQ(FileGetMode(directory / "sub") & kTypeBits, kDirectory);
  EXPECT_EQ(FileGetMode(directory / "file") & 0400, 0400u);
  EXPECT_EQ(FileGetMode(directory / "file") & 0111, 0u);
  EXPECT_EQ(FileGetMode(directory / "sub") & 0100, 0100u);
}

TEST(FileGetWriteTime, TellsSecondsSince1970) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("file"), "x");
  const auto now = std::chrono::file_clock::now();
  fs::last_write_time(directory.Native("file"), now - std::chrono::hours(1000));
  const auto nowSeconds = std::chrono::duration_cast<std::chrono::seconds>(
                              std::chrono::system_clock::now().time_since_epoch())
                              .count();
  const auto told = static_cast<int64_t>(FileGetWriteTime(directory / "file"));
  EXPECT_NEAR(static_cast<double>(told), static_cast<double>(nowSeconds - 3'600'000), 5);
  EXPECT_NE(FileGetWriteTime(directory / ""), 0xFFFFFFFF);
}

TEST(ClampTime, StaysBetween1970AndTheLastSecondThatIsNoMark) {
  EXPECT_EQ(ClampTime(INT64_MIN), 0u);
  EXPECT_EQ(ClampTime(-1), 0u);
  EXPECT_EQ(ClampTime(0), 0u);
  EXPECT_EQ(ClampTime(1), 1u);
  EXPECT_EQ(ClampTime(0x7FFFFFFF), 0x7FFFFFFFu);
  EXPECT_EQ(ClampTime(0xFFFFFFFE), 0xFFFFFFFEu);
  EXPECT_EQ(ClampTime(0xFFFFFFFF), 0xFFFFFFFEu);
  EXPECT_EQ(ClampTime(INT64_MAX), 0xFFFFFFFEu);
}

TEST(FileIsAscii, RefusesEveryControlCharacterButThoseOfTexts) {
  const TemporaryDirectory directory;
  const std::string ofTexts = "\a\b\t\n\v\f\r\x1B";
  for (int byte = 0; byte < 256; ++byte) {
    const auto character = static_cast<char>(byte);
    const bool isControl = byte < 32 || byte == 127;
    const bool isText = !isControl || ofTexts.find(character) != ofTexts.npos;
    WriteFile(directory.Native("file"), std::string("before") + character + "after");
    EXPECT_EQ(FileIsAscii(directory / "file"), isText ? 1 : 0) << byte;
    EXPECT_EQ(File(directory / "file").FileIsValid(), isText) << byte;
  }
}

TEST(FileIsAscii, LooksAtTheFirst4096Bytes) {
  const TemporaryDirectory directory;
  for (const size_t size : {size_t{1}, size_t{255}, size_t{256}, size_t{257}, size_t{4095},
                            size_t{4096}, size_t{4097}}) {
    for (const size_t position : {size_t{0}, size - 1}) {
      std::string content(size, 'x');
      WriteFile(directory.Native("file"), content);
      EXPECT_EQ(FileIsAscii(directory / "file"), 1) << size;
      content[position] = '\0';
      WriteFile(directory.Native("file"), content);
      EXPECT_EQ(FileIsAscii(directory / "file"), position < 4096 ? 0 : 1)
          << size << " bytes, NUL at " << position;
    }
  }
}

TEST(FileIsAscii, TakesAnEmptyFileForText) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("file"), "");
  EXPECT_EQ(FileIsAscii(directory / "file"), 1);
}

TEST(FileIsAscii, TakesUtf8AndCodePagesForTextAndUtf16Not) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("utf-8"), "\xEF\xBB\xBFGrüße, 日本\r\n");
  WriteFile(directory.Native("latin"), "Gr\xFC\xDF");
  WriteFile(directory.Native("utf-16"), std::string("\xFF\xFEG\0r\0", 6));
  EXPECT_EQ(FileIsAscii(directory / "utf-8"), 1);
  EXPECT_EQ(FileIsAscii(directory / "latin"), 1);
  EXPECT_EQ(FileIsAscii(directory / "utf-16"), 0);
}

TEST(FileIsAscii, IsNoForADirectory) {
  const TemporaryDirectory directory;
  EXPECT_EQ(FileIsAscii(directory / ""), 0);
  EXPECT_FALSE(File(directory / "").FileIsValid());
}

}  // namespace
