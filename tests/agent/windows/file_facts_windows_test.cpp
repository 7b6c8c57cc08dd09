// What only Windows has: attributes that are stored, files whose content is elsewhere, times since
// 1601, files that nobody may open.

#include <gtest/gtest.h>
#include <windows.h>

#include <memory>
#include <string>

#include "agent/libZel/platform/windows/find_facts.h"
#include "agent/libZel/platform/windows/unique_handle.h"
#include "libZel/directory.h"
#include "libZel/file.h"
#include "tests/agent/temporary_directory.h"

namespace fs = std::filesystem;

namespace {

constexpr uint32_t kRegular = 0100000;

struct Close {
  void operator()(DIR* directory) const { CloseDirectory(directory); }
};
using Directory = std::unique_ptr<DIR, Close>;

// A listing that stands on the entry; null when there is none of that name.
Directory StandOn(const TemporaryDirectory& directory, const ZelString& name) {
  Directory reading(OpenDirectory(directory / ""));
  while (const dirent* entry = ReadDirectory(reading.get())) {
    if (ZelString(entry->name) == name) return reading;
  }
  return nullptr;
}

TEST(FileGetAttributesOnWindows, TellsThoseThatAreStored) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("file"), "x");
  for (const uint32_t attributes : {1u, 2u, 4u, 7u, 3u}) {
    ASSERT_TRUE(SetFileAttributesW(directory.Native("file").c_str(), attributes | 32));
    const Directory reading = StandOn(directory, "file");
    ASSERT_NE(reading, nullptr);
    const DWORD stored = GetFileAttributesW(directory.Native("file").c_str()) & 7;
    EXPECT_EQ(reading->attributes, stored);
    EXPECT_EQ(FileGetAttributes(directory / "file"), stored);
    EXPECT_EQ(FileGetAttributes(directory / "./file"), stored);
  }
  SetFileAttributesW(directory.Native("file").c_str(), FILE_ATTRIBUTE_NORMAL);
}

TEST(FileGetModeOnWindows, LetsProgramsBeExecuted) {
  const TemporaryDirectory directory;
  for (const char* name : {"a.exe", "b.COM", "c.bat", "d.Cmd", ".exe"}) {
    WriteFile(directory.Native(name), "x");
    EXPECT_EQ(FileGetMode(directory / name), kRegular | 0777) << name;
  }
  for (const char* name : {"a.txt", "exe", "a.exe.txt"}) {
    WriteFile(directory.Native(name), "x");
    EXPECT_EQ(FileGetMode(directory / name), kRegular | 0666) << name;
  }
  EXPECT_EQ(FileGetMode(directory / ""), 0040777u);
}

TEST(FileGetWriteTimeOnWindows, CountsFrom1970AndClamps) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("file"), "x");
  struct Case {
    int64_t unixSeconds;
    uint32_t told;
  };
  for (const Case& one :
       {Case{-86400, 0}, Case{0, 0}, Case{1, 1}, Case{1'000'000'000, 1'000'000'000},
        Case{0xFFFFFFFE, 0xFFFFFFFE}, Case{0x100000000, 0xFFFFFFFE}}) {
    FoundEntry found;
    const auto ticks = static_cast<uint64_t>((one.unixSeconds + 11'644'473'600) * 10'000'000);
    found.written.dwHighDateTime = static_cast<DWORD>(ticks >> 32);
    found.written.dwLowDateTime = static_cast<DWORD>(ticks);
    const UniqueHandle handle(CreateFileW(directory.Native("file").c_str(), FILE_WRITE_ATTRIBUTES,
                                          0, nullptr, OPEN_EXISTING, 0, nullptr));
    ASSERT_TRUE(handle);
    ASSERT_TRUE(SetFileTime(handle.Get(), nullptr, nullptr, &found.written));
    EXPECT_EQ(FileGetWriteTime(directory / "file"), one.told) << one.unixSeconds;
  }
}

TEST(FileFactsOnWindows, AreToldOfAFileThatNobodyElseMayOpen) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("file"), "12345");
  const UniqueHandle handle(CreateFileW(directory.Native("file").c_str(), GENERIC_READ, 0, nullptr,
                                        OPEN_EXISTING, 0, nullptr));
  ASSERT_TRUE(handle);
  for (const char* name : {"file", "./file"}) {
    const Directory reading = StandOn(directory, "file");
    EXPECT_EQ(FileGetSize64(directory / name), 5) << name;
    EXPECT_EQ(FileGetAttributes(directory / name), 128u) << name;
    EXPECT_EQ(FileIsAscii(directory / name), 0) << name;
    EXPECT_EQ(FileMd5(directory / name), "") << name;
  }
}

TEST(FileIsAsciiOnWindows, OpensNoFileWhoseContentIsElsewhere) {
  FoundEntry found;
  for (const DWORD attribute : {DWORD{FILE_ATTRIBUTE_OFFLINE}, DWORD{0x40000}, DWORD{0x400000}}) {
    found.attributes = attribute;
    EXPECT_FALSE(FactsOf(found, L"C:\\file").isReadable) << attribute;
    EXPECT_EQ(FactsOf(found, L"C:\\file").attributes, 128u);
  }
  found.attributes = FILE_ATTRIBUTE_ARCHIVE;
  EXPECT_TRUE(FactsOf(found, L"C:\\file").isReadable);
}

TEST(FileGetAttributesOnWindows, CallsOnlyLinksLinks) {
  constexpr DWORD kDeduplicated = 0x80000013;
  FoundEntry found;
  found.attributes = FILE_ATTRIBUTE_REPARSE_POINT;
  found.reparseTag = kDeduplicated;
  EXPECT_EQ(AttributesOf(found), 128u);
  found.reparseTag = IO_REPARSE_TAG_SYMLINK;
  EXPECT_EQ(AttributesOf(found), 1024u);
  found.attributes |= FILE_ATTRIBUTE_DIRECTORY;
  found.reparseTag = IO_REPARSE_TAG_MOUNT_POINT;
  EXPECT_EQ(AttributesOf(found), 1040u);
}

TEST(FileFactsOnWindows, AreToldOfTheRootOfADrive) {
  EXPECT_EQ(FileGetAttributes("C:\\") & 16, 16u);
  EXPECT_EQ(FileGetAttributes("C:") & 16, 16u);
  const Directory reading(OpenDirectory("C:/"));
  ASSERT_NE(reading, nullptr);
  EXPECT_NE(ReadDirectory(reading.get()), nullptr);
}

}  // namespace
