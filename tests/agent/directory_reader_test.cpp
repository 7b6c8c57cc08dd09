#include "libZel/directory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "libZel/file.h"
#include "tests/agent/temporary_directory.h"

namespace fs = std::filesystem;

namespace {

struct Close {
  void operator()(DIR* directory) const { CloseDirectory(directory); }
};
using Directory = std::unique_ptr<DIR, Close>;

std::map<ZelString, uint32_t> AttributesIn(const ZelString& path) {
  std::map<ZelString, uint32_t> attributes;
  const Directory directory(OpenDirectory(path));
  EXPECT_NE(directory, nullptr);
  if (!directory) return attributes;
  while (const dirent* entry = ReadDirectory(directory.get())) {
    EXPECT_TRUE(attributes.emplace(ZelString(entry->name), directory->attributes).second);
  }
  return attributes;
}

// Goes to an entry; false when there is none of that name.
bool GoTo(DIR* directory, const ZelString& name) {
  while (const dirent* entry = ReadDirectory(directory)) {
    if (ZelString(entry->name) == name) return true;
  }
  return false;
}

TEST(ReadDirectory, ReturnsEveryEntryOnceWithTheDirectoryAndItsParent) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("file"), "x");
  fs::create_directory(directory.Native("sub"));

  const auto found = AttributesIn(directory / "");

  EXPECT_EQ(found, (std::map<ZelString, uint32_t>{
                       {".", 16}, {"..", 16}, {"file", found.at("file")}, {"sub", 16}}));
  EXPECT_EQ(found.at("file") & 16, 0u);
  EXPECT_NE(found.at("file"), 0u);
}

TEST(ReadDirectory, ReturnsNamesInAnyScript) {
  const TemporaryDirectory directory;
  const std::vector<ZelString> names = {"plain",    "Grüße",     "日本語.txt", "Ελληνικά",
                                        "русский",  "עברית",     "العربية",    "हिन्दी",
                                        "🦀🚀", "e\xCC\x81", "a b",        "100% $x & ;"};
  for (const ZelString& name : names) WriteFile(directory.Native(name), "x");

  const auto found = AttributesIn(directory / "");

  EXPECT_EQ(found.size(), names.size() + 2);
  for (const ZelString& name : names) EXPECT_EQ(found.count(name), 1u) << name.Utf8();
}

TEST(ReadDirectory, ReturnsNamesOf255Characters) {
  const TemporaryDirectory directory;
  const ZelString name(std::string(251, 'n') + ".txt");
  WriteFile(directory.Native(name), "12345");
  const Directory reading(OpenDirectory(directory / ""));
  ASSERT_TRUE(GoTo(reading.get(), name));
  EXPECT_EQ(FileGetSize64(directory / name), 5);
}

TEST(ReadDirectory, ReturnsNothingMoreAfterTheEnd) {
  const TemporaryDirectory directory;
  const Directory reading(OpenDirectory(directory / ""));
  EXPECT_FALSE(GoTo(reading.get(), "none"));
  EXPECT_EQ(ReadDirectory(reading.get()), nullptr);
  EXPECT_EQ(ReadDirectory(reading.get()), nullptr);
}

TEST(ReadDirectory, ReadsThousandsOfEntries) {
  const TemporaryDirectory directory;
  for (int i = 0; i < 3000; ++i) {
    WriteFile(directory.Native(ZelString("entry " + std::to_string(i))), "");
  }
  EXPECT_EQ(AttributesIn(directory / "").size(), 3002u);
}

TEST(OpenDirectory, RefusesWhatIsNoDirectory) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("file"), "x");
  EXPECT_EQ(OpenDirectory(directory / "file"), nullptr);
  EXPECT_EQ(OpenDirectory(directory / "file/"), nullptr);
  EXPECT_EQ(OpenDirectory(directory / "missing"), nullptr);
  EXPECT_EQ(OpenDirectory(""), nullptr);
  EXPECT_EQ(OpenDirectory("http://localhost/"), nullptr);
  EXPECT_EQ(OpenDirectory(ZelString(std::string_view("/\0", 2))), nullptr);
}

TEST(OpenDirectory, TakesEitherSeparatorAtTheEndOrNone) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("file"), "12345");
  const ZelString path = FromNativePath(directory.Native());
  for (const ZelString& given : {path, path + "/", path + "\\"}) {
    const Directory reading(OpenDirectory(given));
    ASSERT_TRUE(GoTo(reading.get(), "file")) << given.Utf8();
    const ZelString asked = given == path ? path + "/file" : given + "file";
    EXPECT_EQ(FileGetSize64(asked), 5);
    fs::resize_file(directory.Native("file"), 7);
    EXPECT_EQ(FileGetSize64(asked), 5) << "gathered already";
    fs::resize_file(directory.Native("file"), 5);
  }
}

TEST(CloseDirectory, AcceptsNull) {
  CloseDirectory(nullptr);
  EXPECT_EQ(FileExists("/none at all"), 0);
}

TEST(EntryFacts, AreThoseOutsideOfTheListing) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("file.txt"), "12345");
  WriteFile(directory.Native("binary"), std::string("\0", 1));
  WriteFile(directory.Native("empty"), "");
  WriteFile(directory.Native("locked"), "x");
  fs::permissions(directory.Native("locked"), fs::perms::owner_read);
  fs::create_directory(directory.Native("sub"));
  const Directory reading(OpenDirectory(directory / ""));
  int count = 0;
  while (const dirent* entry = ReadDirectory(reading.get())) {
    const ZelString name(entry->name);
    if (name == "." || name == "..") continue;
    ++count;
    const ZelString within = directory / name;
    const ZelString outside = directory / "./" + name;
    EXPECT_EQ(FileGetAttributes(within), FileGetAttributes(outside)) << name.Utf8();
    EXPECT_EQ(FileGetSize64(within), FileGetSize64(outside)) << name.Utf8();
    EXPECT_EQ(FileGetWriteTime(within), FileGetWriteTime(outside)) << name.Utf8();
    EXPECT_EQ(FileGetMode(within), FileGetMode(outside)) << name.Utf8();
    EXPECT_EQ(FileIsAscii(within), FileIsAscii(outside)) << name.Utf8();
    EXPECT_NE(FileGetAttributes(within), 0xFFFFFFFF);
  }
  EXPECT_EQ(count, 5);
}

TEST(EntryFacts, LastUntilTheNextEntryIsRead) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("file"), "12345");
  const Directory reading(OpenDirectory(directory / ""));
  ASSERT_TRUE(GoTo(reading.get(), "file"));
  EXPECT_EQ(FileGetSize64(directory / "file"), 5);
  fs::remove(directory.Native("file"));
  EXPECT_EQ(FileGetSize64(directory / "file"), 5) << "gathered already";
  EXPECT_NE(FileGetAttributes(directory / "file"), 0xFFFFFFFF);

  ReadDirectory(reading.get());

  EXPECT_EQ(FileGetSize64(directory / "file"), -1);
  EXPECT_EQ(FileGetAttributes(directory / "file"), 0xFFFFFFFF);
}

TEST(EntryFacts, LastUntilTheDirectoryIsClosed) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("file"), "12345");
  Directory reading(OpenDirectory(directory / ""));
  ASSERT_TRUE(GoTo(reading.get(), "file"));
  EXPECT_EQ(FileGetSize64(directory / "file"), 5);
  fs::remove(directory.Native("file"));

  reading.reset();

  EXPECT_EQ(FileGetSize64(directory / "file"), -1);
}

TEST(EntryFacts, AreOnlyThoseOfTheDirectoryReadLast) {
  const TemporaryDirectory first;
  const TemporaryDirectory second;
  WriteFile(first.Native("file"), "12345");
  WriteFile(second.Native("file"), "1");
  const Directory one(OpenDirectory(first / ""));
  Directory two(OpenDirectory(second / ""));
  ASSERT_TRUE(GoTo(one.get(), "file"));
  EXPECT_EQ(FileGetSize64(first / "file"), 5);
  ASSERT_TRUE(GoTo(two.get(), "file"));
  fs::resize_file(first.Native("file"), 7);
  EXPECT_EQ(FileGetSize64(first / "file"), 7);
  EXPECT_EQ(FileGetSize64(second / "file"), 1);

  two.reset();

  fs::resize_file(second.Native("file"), 2);
  EXPECT_EQ(FileGetSize64(second / "file"), 2);
}

TEST(EntryFacts, AreThoseOfTheThreadThatReads) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("file"), "12345");
  const Directory reading(OpenDirectory(directory / ""));
  ASSERT_TRUE(GoTo(reading.get(), "file"));
  EXPECT_EQ(FileGetSize64(directory / "file"), 5);
  fs::resize_file(directory.Native("file"), 7);
  int64_t elsewhere = 0;
  std::thread([&] { elsewhere = FileGetSize64(directory / "file"); }).join();
  EXPECT_EQ(elsewhere, 7);
  EXPECT_EQ(FileGetSize64(directory / "file"), 5);
}

TEST(EntryFacts, AnswerOnlyForExactlyThePathOfTheEntry) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("file"), "12345");
  WriteFile(directory.Native("file2"), "1");
  const Directory reading(OpenDirectory(directory / ""));
  ASSERT_TRUE(GoTo(reading.get(), "file"));
  EXPECT_EQ(FileGetSize64(directory / "file"), 5);
  fs::resize_file(directory.Native("file"), 7);
  EXPECT_EQ(FileGetSize64(directory / "./file"), 7);
  EXPECT_EQ(FileGetSize64(directory / "/file"), 7);
  EXPECT_EQ(FileGetSize64(directory / "file2"), 1);
  EXPECT_EQ(FileGetSize64(directory / "fil"), -1);
  EXPECT_EQ(FileGetSize64(directory / "file/"), -1);
  EXPECT_EQ(FileGetSize64("file"), -1);
}

TEST(EntryFacts, SayFileOrDirectoryEvenWhenTheEntryHasVanished) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("file"), "12345");
  fs::create_directory(directory.Native("sub"));
  for (const char* name : {"file", "sub"}) {
    const bool isDirectory = fs::is_directory(directory.Native(name));
    const Directory reading(OpenDirectory(directory / ""));
    ASSERT_TRUE(GoTo(reading.get(), name));
    fs::remove(directory.Native(name));
    const uint32_t attributes = FileGetAttributes(directory / name);
    EXPECT_EQ((attributes & 16) != 0, isDirectory) << name;
    EXPECT_NE(attributes, 0xFFFFFFFF);
    EXPECT_EQ(FileIsAscii(directory / name), 0);
  }
}

}  // namespace
