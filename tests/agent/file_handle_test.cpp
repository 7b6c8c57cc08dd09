// Files read and written by handle, and the copies and deletions that go with them.

#include <gtest/gtest.h>

#include <chrono>
#include <climits>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "libZel/file.h"
#include "tests/agent/temporary_directory.h"

namespace fs = std::filesystem;

namespace {

constexpr uint32_t kFailed = 0xFFFFFFFF;

// All of a file in reads of `step` bytes.
std::string ReadByHandle(int handle, uint32_t step) {
  std::string content;
  std::string buffer(step, '\0');
  for (;;) {
    const uint32_t count = FileRead(handle, buffer.data(), step);
    if (count == 0) return content;
    if (count == kFailed) return "failed";
    content.append(buffer, 0, count);
  }
}

uint32_t Write(int handle, const std::string& text) {
  return FileWrite(handle, text.data(), static_cast<uint32_t>(text.size()));
}

TEST(FileOpen, ReadsAFileInPieces) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("file"), "0123456789");
  for (const uint32_t step : {1u, 3u, 10u, 100u}) {
    const int handle = FileOpen(directory / "file", 0);
    ASSERT_NE(handle, -1);
    EXPECT_EQ(ReadByHandle(handle, step), "0123456789");
    EXPECT_EQ(FileClose(handle), 0);
  }
}

TEST(FileOpen, RefusesWhatIsNoFile) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("file"), "x");
  EXPECT_EQ(FileOpen(directory / "missing", 0), -1);
  EXPECT_EQ(FileOpen(directory / "", 0), -1);
  EXPECT_EQ(FileOpen(FromNativePath(directory.Native()), 0), -1);
  EXPECT_EQ(FileOpen(directory / "file/", 0), -1);
  EXPECT_EQ(FileOpen("", 0), -1);
  EXPECT_EQ(FileOpen("http://localhost/file", 0), -1);
}

TEST(FileOpen, LetsOthersReplaceAndDeleteTheFile) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("file"), "old");
  WriteFile(directory.Native("new"), "new");
  const int handle = FileOpen(directory / "file", 0);
  EXPECT_EQ(FileCopy(directory / "new", directory / "file", 0), 0);
  EXPECT_EQ(ReadFile(directory.Native("file")), "new");
  EXPECT_EQ(FileDelete(directory / "file", 0), 0);
  EXPECT_EQ(FileExists(directory / "file"), 0);
  EXPECT_EQ(ReadByHandle(handle, 10), "old");
  EXPECT_EQ(FileClose(handle), 0);
  EXPECT_EQ(directory.CountEntries(), 1u);
}

TEST(FileCreate, MakesAFileThatIsWrittenInPieces) {
  const TemporaryDirectory directory;
  const int handle = FileCreate(directory / "file", 0);
  ASSERT_NE(handle, -1);
  EXPECT_EQ(Write(handle, "one "), 4u);
  EXPECT_EQ(FileWrite(handle, nullptr, 0), 0u);
  EXPECT_EQ(Write(handle, "two"), 3u);
  EXPECT_EQ(ReadFile(directory.Native("file")), "one two");
  EXPECT_EQ(FileClose(handle), 0);
  EXPECT_EQ(ReadFile(directory.Native("file")), "one two");
}

TEST(FileCreate, RefusesAnEntryThatExists) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("file"), "old");
  fs::create_directory(directory.Native("directory"));
  EXPECT_EQ(FileCreate(directory / "file", 0), -1);
  EXPECT_EQ(FileCreate(directory / "directory", 0), -1);
  EXPECT_EQ(FileCreate(directory / "missing/file", 0), -1);
  EXPECT_EQ(FileCreate(directory / "name/", 0), -1);
  EXPECT_EQ(FileCreate("", 0), -1);
  EXPECT_EQ(ReadFile(directory.Native("file")), "old");
  EXPECT_EQ(directory.CountEntries(), 2u);
}

TEST(FileHandle, LeadsNowhereOnceItIsClosed) {
  const TemporaryDirectory directory;
  const int closed = FileCreate(directory / "a", 0);
  EXPECT_EQ(FileClose(closed), 0);
  const int open = FileCreate(directory / "b", 0);
  EXPECT_NE(open, closed);

  EXPECT_EQ(Write(closed, "x"), kFailed);
  char byte = 0;
  EXPECT_EQ(FileRead(closed, &byte, 1), kFailed);
  EXPECT_EQ(FileClose(closed), -1);
  for (const int wrong : {-1, 0, 1000000, INT_MAX, INT_MIN}) {
    EXPECT_EQ(Write(wrong, "x"), kFailed) << wrong;
    EXPECT_EQ(FileRead(wrong, &byte, 1), kFailed) << wrong;
    EXPECT_EQ(FileClose(wrong), -1) << wrong;
  }
  EXPECT_EQ(FileClose(open), 0);
  EXPECT_EQ(fs::file_size(directory.Native("b")), 0u);
}

TEST(FileHandle, ServesOneDirectionOnly) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("file"), "old");
  const int input = FileOpen(directory / "file", 0);
  EXPECT_EQ(Write(input, "new"), kFailed);
  EXPECT_EQ(ReadByHandle(input, 10), "old");
  EXPECT_EQ(FileClose(input), 0);

  const int output = FileCreate(directory / "other", 0);
  char byte = 0;
  EXPECT_EQ(FileRead(output, &byte, 1), kFailed);
  EXPECT_EQ(Write(output, "still open"), 10u);
  EXPECT_EQ(FileClose(output), 0);
  EXPECT_EQ(ReadFile(directory.Native("file")), "old");
}

TEST(FileHandle, BelongsToNoThread) {
  const TemporaryDirectory directory;
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&directory, i] {
      const ZelString path = directory / ZelString::FromInt64(i);
      for (int round = 0; round < 10; ++round) {
        const int handle = FileCreate(path, 0);
        EXPECT_EQ(Write(handle, std::to_string(i)), 1u);
        EXPECT_EQ(FileClose(handle), 0);
        EXPECT_EQ(FileDelete(path, 0), 0);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(directory.CountEntries(), 0u);
}

TEST(FileDelete, FreesTheNameOfAnOpenFile) {
  const TemporaryDirectory directory;
  const int first = FileCreate(directory / "file", 0);
  EXPECT_EQ(Write(first, "first"), 5u);
  EXPECT_EQ(FileDelete(directory / "file", 0), 0);
  const int second = FileCreate(directory / "file", 0);
  ASSERT_NE(second, -1);
  EXPECT_EQ(Write(second, "second"), 6u);
  EXPECT_EQ(Write(first, " more"), 5u);
  EXPECT_EQ(FileClose(first), 0);
  EXPECT_EQ(FileClose(second), 0);
  EXPECT_EQ(ReadFile(directory.Native("file")), "second");
  EXPECT_EQ(directory.CountEntries(), 1u);
}

TEST(FileDelete, RefusesAReadOnlyFileUnlessForced) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("file"), "x");
  constexpr auto kWrite = fs::perms::owner_write | fs::perms::group_write | fs::perms::others_write;
  fs::permissions(directory.Native("file"), kWrite, fs::perm_options::remove);
  EXPECT_NE(FileDelete(directory / "file", 0), 0);
  EXPECT_EQ(FileExists(directory / "file"), 1);
  EXPECT_EQ(FileDelete(directory / "file", 1), 0);
  EXPECT_EQ(FileExists(directory / "file"), 0);
}

TEST(FileDelete, RefusesWhatIsNoFile) {
  const TemporaryDirectory directory;
  EXPECT_NE(FileDelete(directory / "missing", 1), 0);
  EXPECT_NE(FileDelete(FromNativePath(directory.Native()), 1), 0);
  EXPECT_NE(FileDelete("", 1), 0);
  EXPECT_TRUE(fs::exists(directory.Native()));
}

TEST(FileCopy, CopiesContentAndTime) {
  const TemporaryDirectory directory;
  const std::string content(100'000, 'x');
  WriteFile(directory.Native("source"), content);
  const auto modified = fs::last_write_time(directory.Native("source")) - std::chrono::hours(100);
  fs::last_write_time(directory.Native("source"), modified);
  EXPECT_EQ(FileCopy(directory / "source", directory / "copy", 1), 0);
  EXPECT_EQ(ReadFile(directory.Native("copy")), content);
  EXPECT_EQ(fs::last_write_time(directory.Native("copy")),
            fs::last_write_time(directory.Native("source")));
  EXPECT_EQ(directory.CountEntries(), 2u);
}

TEST(FileCopy, RefusesAnExistingDestinationOnDemand) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("source"), "new");
  WriteFile(directory.Native("target"), "old");
  EXPECT_NE(FileCopy(directory / "source", directory / "target", 1), 0);
  EXPECT_EQ(ReadFile(directory.Native("target")), "old");
  EXPECT_EQ(FileCopy(directory / "source", directory / "target", 0), 0);
  EXPECT_EQ(ReadFile(directory.Native("target")), "new");
  EXPECT_EQ(directory.CountEntries(), 2u);
}

TEST(FileCopy, ReplacesAFileThatIsBeingWritten) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("source"), "kept");
  const int handle = FileCreate(directory / "target", 0);
  EXPECT_EQ(Write(handle, "half"), 4u);
  EXPECT_EQ(FileCopy(directory / "source", directory / "target", 0), 0);
  EXPECT_EQ(Write(handle, "lost"), 4u);
  EXPECT_EQ(ReadFile(directory.Native("target")), "kept");
  EXPECT_EQ(FileClose(handle), 0);
  EXPECT_EQ(ReadFile(directory.Native("target")), "kept");
  EXPECT_EQ(directory.CountEntries(), 2u);
}

TEST(FileCopy, MakesCopiesThatCanBeWritten) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("source"), "x");
  constexpr auto kWrite = fs::perms::owner_write | fs::perms::group_write | fs::perms::others_write;
  fs::permissions(directory.Native("source"), kWrite, fs::perm_options::remove);
  EXPECT_EQ(FileCopy(directory / "source", directory / "copy", 0), 0);
  EXPECT_NE(fs::status(directory.Native("copy")).permissions() & fs::perms::owner_write,
            fs::perms::none);
  EXPECT_EQ(FileDelete(directory / "copy", 0), 0);
  EXPECT_EQ(FileDelete(directory / "source", 1), 0);
}

TEST(FileCopy, RefusesWhatIsNoFile) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("source"), "x");
  fs::create_directory(directory.Native("directory"));
  EXPECT_NE(FileCopy(directory / "missing", directory / "copy", 0), 0);
  EXPECT_NE(FileCopy(directory / "directory", directory / "copy", 0), 0);
  EXPECT_NE(FileCopy(directory / "source", directory / "directory", 0), 0);
  EXPECT_NE(FileCopy(directory / "source", directory / "missing/copy", 0), 0);
  EXPECT_NE(FileCopy(directory / "source", directory / "source", 0), 0);
  EXPECT_NE(FileCopy("http://localhost/file", directory / "copy", 0), 0);
  EXPECT_NE(FileCopy("", "", 0), 0);
  EXPECT_EQ(ReadFile(directory.Native("source")), "x");
  EXPECT_EQ(directory.CountEntries(), 2u);
}

}  // namespace
