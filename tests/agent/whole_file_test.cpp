#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <thread>

#include "libZel/text.h"
#include "tests/agent/temporary_directory.h"

namespace fs = std::filesystem;

namespace {

using std::string_literals::operator""s;

constexpr uintmax_t kLargestBytes = uintmax_t{64} << 20;

TEST(LoadFileToString, ReadsTheWholeFile) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("file"), "one\r\n\0two\n"s);
  ZelString text = "before";
  EXPECT_TRUE(LoadFileToString(directory / "file", &text));
  EXPECT_EQ(text, "one\r\n\0two\n"s);
  WriteFile(directory.Native("empty"), "");
  EXPECT_TRUE(LoadFileToString(directory / "empty", &text));
  EXPECT_EQ(text, "");
}

TEST(LoadFileToString, LeavesTheTextWhenTheFileCannotBeRead) {
  const TemporaryDirectory directory;
  ZelString text = "before";
  for (const char* name : {"none", "", "none/none"}) {
    EXPECT_FALSE(LoadFileToString(directory / name, &text)) << name;
  }
  EXPECT_FALSE(LoadFileToString("", &text));
  EXPECT_EQ(text, "before");
}

TEST(LoadFileToString, RefusesAFileThatIsTooLarge) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("file"), "");
  ZelString text = "before";
  fs::resize_file(directory.Native("file"), kLargestBytes + 1);
  EXPECT_FALSE(LoadFileToString(directory / "file", &text));
  EXPECT_EQ(text, "before");
  fs::resize_file(directory.Native("file"), kLargestBytes);
  EXPECT_TRUE(LoadFileToString(directory / "file", &text));
  EXPECT_EQ(text.GetLength(), kLargestBytes);
}

TEST(SaveFileFromString, WritesBackEveryByteThatWasRead) {
  const TemporaryDirectory directory;
  std::string bytes;
  for (int i = 0; i < 256; ++i) bytes += static_cast<char>(i);
  bytes += "ü€🦀\xED\xB2\x80\xED\xA0\x80";  // the last two would be surrogates
  WriteFile(directory.Native("file"), bytes);
  ZelString text;
  ASSERT_TRUE(LoadFileToString(directory / "file", &text));
  EXPECT_TRUE(SaveFileFromString(directory / "file", text));
  EXPECT_EQ(ReadFile(directory.Native("file")), bytes);
  EXPECT_TRUE(SaveFileFromString(directory / "file", text + "tail"));
  EXPECT_EQ(ReadFile(directory.Native("file")), bytes + "tail");
  EXPECT_EQ(directory.CountEntries(), 1u);
}

TEST(SaveFileFromString, MakesAFileThatIsNotThere) {
  const TemporaryDirectory directory;
  EXPECT_TRUE(SaveFileFromString(directory / "new", "text"));
  EXPECT_EQ(ReadFile(directory.Native("new")), "text");
}

TEST(SaveFileFromString, FailsWithoutATrace) {
  const TemporaryDirectory directory;
  fs::create_directory(directory.Native("sub"));
  for (const char* name : {"none/file", "sub", "sub/", ""}) {
    EXPECT_FALSE(SaveFileFromString(directory / name, "text")) << name;
  }
  EXPECT_FALSE(SaveFileFromString("", "text"));
  EXPECT_EQ(directory.CountEntries(), 1u);
}

TEST(SaveFileFromString, LeavesAReadOnlyFile) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("file"), "old");
  constexpr auto kWrite = fs::perms::owner_write | fs::perms::group_write | fs::perms::others_write;
  fs::permissions(directory.Native("file"), kWrite, fs::perm_options::remove);
  EXPECT_FALSE(SaveFileFromString(directory / "file", "new"));
  EXPECT_EQ(ReadFile(directory.Native("file")), "old");
  EXPECT_EQ(directory.CountEntries(), 1u);
  fs::permissions(directory.Native("file"), kWrite, fs::perm_options::add);
}

TEST(SaveFileFromString, KeepsThePermissions) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("file"), "old");
  constexpr auto kMine = fs::perms::owner_read | fs::perms::owner_write;
  fs::permissions(directory.Native("file"), kMine);
  const fs::perms before = fs::status(directory.Native("file")).permissions();
  EXPECT_TRUE(SaveFileFromString(directory / "file", "new"));
  EXPECT_EQ(ReadFile(directory.Native("file")), "new");
  EXPECT_EQ(fs::status(directory.Native("file")).permissions(), before);
}

TEST(SaveFileFromString, RefusesWhatCouldNotBeRead) {
  const TemporaryDirectory directory;
  ZelString text;
  EXPECT_FALSE(LoadFileToString(directory / "file", &text));
  WriteFile(directory.Native("file"), "appeared meanwhile");
  EXPECT_FALSE(SaveFileFromString(directory / "file", text));
  EXPECT_FALSE(SaveFileFromString(directory / "./file", text));
  EXPECT_EQ(ReadFile(directory.Native("file")), "appeared meanwhile");

  // Another file that can be read changes nothing.
  EXPECT_TRUE(SaveFileFromString(directory / "other", "text"));
  EXPECT_TRUE(LoadFileToString(directory / "other", &text));
  EXPECT_FALSE(SaveFileFromString(directory / "file", text));

  EXPECT_TRUE(LoadFileToString(directory / "file", &text));
  EXPECT_TRUE(SaveFileFromString(directory / "file", "new"));
  EXPECT_EQ(ReadFile(directory.Native("file")), "new");
}

TEST(SaveFileFromString, KnowsOnlyItsOwnThreadsFailures) {
  const TemporaryDirectory directory;
  std::thread([&] {
    ZelString text;
    EXPECT_FALSE(LoadFileToString(directory / "file", &text));
  }).join();
  EXPECT_TRUE(SaveFileFromString(directory / "file", "text"));
}

}  // namespace
