#include "libZel/file.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "agent/libZel/debug_context.h"
#include "libZel/path.h"
#include "tests/agent/temporary_directory.h"

namespace fs = std::filesystem;

namespace {

using std::chrono::hours;

std::string LargeContent() {
  std::string content;
  for (int i = 0; content.size() < 3'000'000; ++i) content += std::to_string(i) + '\n';
  return content;
}

TEST(FileExists, TellsFilesFromDirectories) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("file"), "x");
  EXPECT_EQ(FileExists(directory / "file"), 1);
  EXPECT_EQ(
      FileExists(directory / "..\\" + FromNativePath(directory.Native().filename()) + "\\file"), 1);
  EXPECT_EQ(FileExists(directory / "missing"), 0);
  EXPECT_EQ(FileExists(directory / ""), 0);
  EXPECT_EQ(FileExists(directory / "file/"), 0) << "a closing separator names a directory";
  EXPECT_EQ(FileExists(directory / "file/below"), 0);
  EXPECT_EQ(FileExists(""), 0);
  EXPECT_EQ(FileExists(ZelString(std::string_view("/\0", 2))), 0);
}

TEST(FileGetSize, CountsBytes) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("file"), "12345");
  WriteFile(directory.Native("empty"), "");
  EXPECT_EQ(FileGetSize(directory / "file"), 5u);
  EXPECT_EQ(FileGetSize(directory / "empty"), 0u);
  EXPECT_EQ(FileGetSize(directory / "missing"), 0u);
  EXPECT_EQ(FileGetSize(directory / ""), 0u);
}

TEST(FileGetSize, WrapsBeyond4GiB) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("file"), "");
  fs::resize_file(directory.Native("file"), (uint64_t{1} << 32) + 7);
  EXPECT_EQ(FileGetSize(directory / "file"), 7u);
}

TEST(FileCopyNet, CopiesContentAndModificationTime) {
  const TemporaryDirectory directory;
  const std::string content = LargeContent();
  WriteFile(directory.Native("source"), content);
  const auto modified = fs::last_write_time(directory.Native("source")) - hours(100);
  fs::last_write_time(directory.Native("source"), modified);

  EXPECT_EQ(FileCopyNet(directory / "source", directory / "copy", 0), 0);

  EXPECT_EQ(ReadFile(directory.Native("copy")), content);
  EXPECT_EQ(fs::last_write_time(directory.Native("copy")),
            fs::last_write_time(directory.Native("source")));
  EXPECT_EQ(directory.CountEntries(), 2u) << "no temporary file stays";
}

TEST(FileCopyNet, CopiesAnEmptyFile) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("source"), "");
  EXPECT_EQ(FileCopyNet(directory / "source", directory / "copy", 1), 0);
  EXPECT_EQ(fs::file_size(directory.Native("copy")), 0u);
}

TEST(FileCopyNet, ReplacesTheDestinationUnlessToldNotTo) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("source"), "new");
  WriteFile(directory.Native("destination"), "old and longer");
  EXPECT_NE(FileCopyNet(directory / "source", directory / "destination", 1), 0);
  EXPECT_EQ(ReadFile(directory.Native("destination")), "old and longer");
  EXPECT_EQ(FileCopyNet(directory / "source", directory / "destination", 0), 0);
  EXPECT_EQ(ReadFile(directory.Native("destination")), "new");
  EXPECT_EQ(directory.CountEntries(), 2u);
}

TEST(FileCopyNet, RefusesAFileOntoItself) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("file"), "content");
  fs::create_hard_link(directory.Native("file"), directory.Native("other name"));
  EXPECT_NE(FileCopyNet(directory / "file", directory / "./file", 0), 0);
  EXPECT_NE(FileCopyNet(directory / "file", directory / "other name", 0), 0);
  EXPECT_EQ(ReadFile(directory.Native("file")), "content");
}

TEST(FileCopyNet, RefusesDirectoriesOnEitherSide) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("file"), "content");
  fs::create_directory(directory.Native("sub"));
  EXPECT_NE(FileCopyNet(directory / "sub", directory / "copy", 0), 0);
  EXPECT_NE(FileCopyNet(directory / "file", directory / "sub", 0), 0);
  EXPECT_NE(FileCopyNet(directory / "file", directory / "new/", 0), 0);
  EXPECT_EQ(directory.CountEntries(), 2u);
}

TEST(FileCopyNet, FailsWithoutASourceOrADirectoryToWriteTo) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("file"), "content");
  EXPECT_NE(FileCopyNet(directory / "missing", directory / "copy", 0), 0);
  EXPECT_NE(FileCopyNet(directory / "file", directory / "missing/copy", 0), 0);
  EXPECT_NE(FileCopyNet("", directory / "copy", 0), 0);
  EXPECT_NE(FileCopyNet(directory / "file", "", 0), 0);
  EXPECT_EQ(directory.CountEntries(), 1u);
}

TEST(FileCopyNet, OnlyOneOfManyWinsAFreeName) {
  const TemporaryDirectory directory;
  constexpr int kThreads = 8;
  for (int i = 0; i < kThreads; ++i) {
    WriteFile(directory.Native(ZelString("s") + ZelString::FromInt64(i)), std::to_string(i));
  }
  std::vector<int> results(kThreads, -1);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      const ZelString source = directory / (ZelString("s") + ZelString::FromInt64(i));
      results[static_cast<size_t>(i)] = FileCopyNet(source, directory / "copy", 1);
    });
  }
  for (std::thread& thread : threads) thread.join();

  const auto winner = std::find(results.begin(), results.end(), 0);
  ASSERT_NE(winner, results.end());
  EXPECT_EQ(std::count(results.begin(), results.end(), 0), 1);
  EXPECT_EQ(ReadFile(directory.Native("copy")), std::to_string(winner - results.begin()));
  EXPECT_EQ(directory.CountEntries(), kThreads + 1u);
}

TEST(FileCopyNet, TakesUnicodeNamesAndLongPaths) {
  const TemporaryDirectory directory;
  ZelString path = directory / "";
  for (int i = 0; i < 7; ++i) {
    path += ZelString("/").Append('d', 60);
    ASSERT_EQ(DirCreate(path), 1);
  }
  const ZelString source = path + "\\Grüße 🦊.txt";
  WriteFile(ToNativePath(source).path, "content");
  EXPECT_EQ(FileExists(source), 1);
  EXPECT_EQ(FileCopyNet(source, path + "/日本語.txt", 0), 0);
  EXPECT_EQ(FileRenameNet(path + "/日本語.txt", path + "/다른 이름"), 0);
  EXPECT_EQ(FileGetSize(path + "/다른 이름"), 7u);
  EXPECT_EQ(DirDelete(directory / ZelString().Append('d', 60), 1, 0), 1);
  EXPECT_EQ(directory.CountEntries(), 0u);
}

TEST(FileFunctions, FailPlainlyOnAPathOf32000Characters) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("file"), "content");
  ZelString path = directory / "";
  path.Append("/x", 16000);
  EXPECT_EQ(FileExists(path), 0);
  EXPECT_NE(FileCopyNet(directory / "file", path, 0), 0);
  EXPECT_NE(FileRenameNet(directory / "file", path), 0);
  EXPECT_NE(FileDeleteNet(path, true), 0);
  EXPECT_EQ(DirCreate(path), 0);
  EXPECT_EQ(ReadFile(directory.Native("file")), "content");
}

TEST(FileRenameNet, MovesAFile) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("a"), "content");
  fs::create_directory(directory.Native("sub"));
  EXPECT_EQ(FileRenameNet(directory / "a", directory / "sub\\b"), 0);
  EXPECT_EQ(FileExists(directory / "a"), 0);
  EXPECT_EQ(ReadFile(directory.Native("sub/b")), "content");
}

TEST(FileRenameNet, RefusesAnExistingDestination) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("a"), "a");
  WriteFile(directory.Native("b"), "b");
  fs::create_directory(directory.Native("sub"));
  EXPECT_NE(FileRenameNet(directory / "a", directory / "b"), 0);
  EXPECT_NE(FileRenameNet(directory / "a", directory / "sub"), 0);
  EXPECT_EQ(ReadFile(directory.Native("a")), "a");
  EXPECT_EQ(ReadFile(directory.Native("b")), "b");
}

TEST(FileRenameNet, LeavesAFileUnderItsOwnName) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("a"), "a");
  EXPECT_EQ(FileRenameNet(directory / "a", directory / ".\\a"), 0);
  EXPECT_EQ(ReadFile(directory.Native("a")), "a");
  EXPECT_NE(FileRenameNet(directory / "b", directory / "b"), 0);
}

TEST(FileRenameNet, ChangesTheCaseOfAName) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("name"), "content");
  EXPECT_EQ(FileRenameNet(directory / "name", directory / "NAME"), 0);
  EXPECT_EQ(fs::directory_iterator(directory.Native())->path().filename().string(), "NAME");
  EXPECT_EQ(directory.CountEntries(), 1u);
}

TEST(FileRenameNet, RefusesDirectories) {
  const TemporaryDirectory directory;
  fs::create_directory(directory.Native("sub"));
  EXPECT_NE(FileRenameNet(directory / "sub", directory / "other"), 0);
  EXPECT_EQ(DirExists(directory / "sub"), 1);
}

TEST(FileDeleteNet, DeletesFilesOnly) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("file"), "x");
  fs::create_directory(directory.Native("sub"));
  EXPECT_EQ(FileDeleteNet(directory / "file", false), 0);
  EXPECT_EQ(FileExists(directory / "file"), 0);
  EXPECT_NE(FileDeleteNet(directory / "file", true), 0);
  EXPECT_NE(FileDeleteNet(directory / "sub", true), 0);
  EXPECT_NE(FileDeleteNet("", false), 0);
  EXPECT_EQ(DirExists(directory / "sub"), 1);
}

TEST(FileDeleteNet, ForcesAReadOnlyFile) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("file"), "x");
  fs::permissions(directory.Native("file"), fs::perms::owner_read);
  EXPECT_EQ(FileDeleteNet(directory / "file", true), 0);
  EXPECT_EQ(directory.CountEntries(), 0u);
}

TEST(DirCreate, CreatesOneDirectory) {
  const TemporaryDirectory directory;
  EXPECT_EQ(DirCreate(directory / "a/"), 1);
  EXPECT_EQ(DirExists(directory / "a"), 1);
  EXPECT_EQ(DirCreate(directory / "a"), 0) << "it exists";
  EXPECT_EQ(DirCreate(directory / "missing\\b"), 0);
  EXPECT_EQ(DirCreate(""), 0);
  WriteFile(directory.Native("file"), "x");
  EXPECT_EQ(DirCreate(directory / "file"), 0);
  EXPECT_EQ(DirExists(directory / "file"), 0);
}

TEST(DirRename, AnswersARepeatedCallOnceMore) {
  const TemporaryDirectory directory;
  fs::create_directory(directory.Native("a"));
  EXPECT_EQ(DirRename(directory / "a", directory / "b"), 1);
  EXPECT_EQ(DirRename(directory / "a", directory / "b"), 1);
  EXPECT_EQ(DirRename(directory / "a", directory / "b"), 0) << "the record is used up";
  EXPECT_EQ(DirExists(directory / "a"), 0);
  EXPECT_EQ(DirExists(directory / "b"), 1);
}

TEST(DirRename, FailsWhenTheDestinationStoodThereBefore) {
  const TemporaryDirectory directory;
  fs::create_directory(directory.Native("b"));
  EXPECT_EQ(DirRename(directory / "a", directory / "b"), 0);
  EXPECT_EQ(DirRename(directory / "a", directory / "b"), 0);
  fs::create_directory(directory.Native("a"));
  EXPECT_EQ(DirRename(directory / "a", directory / "b"), 0) << "an empty one is not replaced";
  EXPECT_EQ(directory.CountEntries(), 2u);
}

TEST(DirRename, ForgetsAfterAnotherRename) {
  const TemporaryDirectory directory;
  fs::create_directory(directory.Native("a"));
  fs::create_directory(directory.Native("c"));
  EXPECT_EQ(DirRename(directory / "a", directory / "b"), 1);
  EXPECT_EQ(DirRename(directory / "c", directory / "d"), 1);
  EXPECT_EQ(DirRename(directory / "a", directory / "b"), 0);
}

TEST(DirRename, ForgetsAfterAFailedRename) {
  const TemporaryDirectory directory;
  fs::create_directory(directory.Native("a"));
  EXPECT_EQ(DirRename(directory / "a", directory / "b"), 1);
  EXPECT_EQ(DirRename("", "x"), 0);
  EXPECT_EQ(DirRename(directory / "a", directory / "b"), 0);
}

TEST(DirRename, DoesNotTakeAnotherDirectoryForTheRenamedOne) {
  const TemporaryDirectory directory;
  fs::create_directory(directory.Native("a"));
  fs::create_directory(directory.Native("impostor"));
  EXPECT_EQ(DirRename(directory / "a", directory / "b"), 1);
  fs::rename(directory.Native("b"), directory.Native("elsewhere"));
  fs::rename(directory.Native("impostor"), directory.Native("b"));
  EXPECT_EQ(DirRename(directory / "a", directory / "b"), 0);
}

TEST(DirRename, RemembersForOneThreadOnly) {
  const TemporaryDirectory directory;
  fs::create_directory(directory.Native("a"));
  EXPECT_EQ(DirRename(directory / "a", directory / "b"), 1);
  int result = -1;
  std::thread([&] { result = DirRename(directory / "a", directory / "b"); }).join();
  EXPECT_EQ(result, 0);
  EXPECT_EQ(DirRename(directory / "a", directory / "b"), 1);
}

TEST(DirRename, RefusesFilesAndItsOwnSubtree) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("file"), "x");
  fs::create_directory(directory.Native("a"));
  EXPECT_EQ(DirRename(directory / "file", directory / "b"), 0);
  EXPECT_EQ(DirRename(directory / "a", directory / "a/b"), 0);
  EXPECT_EQ(DirRename(directory / "a", directory / "file"), 0);
  EXPECT_TRUE(fs::is_empty(directory.Native("a")));
  EXPECT_EQ(ReadFile(directory.Native("file")), "x");
}

TEST(DirRename, LeavesADirectoryUnderItsOwnName) {
  const TemporaryDirectory directory;
  fs::create_directory(directory.Native("a"));
  EXPECT_EQ(DirRename(directory / "a", directory / "a\\"), 1);
  EXPECT_EQ(DirExists(directory / "a"), 1);
  EXPECT_EQ(DirRename(directory / "b", directory / "b"), 0);
}

TEST(DirDelete, DeletesATree) {
  const TemporaryDirectory directory;
  fs::create_directories(directory.Native("a/b/c"));
  fs::create_directories(directory.Native("a/d"));
  for (int i = 0; i < 500; ++i) {
    WriteFile(directory.Native(ZelString("a/b/f") + ZelString::FromInt64(i)), "x");
  }
  fs::permissions(directory.Native("a/b/f1"), fs::perms::owner_read);
  EXPECT_EQ(DirDelete(directory / "a\\", 1, 0), 1);
  EXPECT_EQ(directory.CountEntries(), 0u);
}

TEST(DirDelete, KeepsTheRootWhenAsked) {
  const TemporaryDirectory directory;
  fs::create_directories(directory.Native("a/b"));
  WriteFile(directory.Native("a/file"), "x");
  EXPECT_EQ(DirDelete(directory / "a", 1, 1), 1);
  EXPECT_TRUE(fs::is_empty(directory.Native("a")));
  EXPECT_EQ(DirDelete(directory / "a", 0, 1), 1);
  EXPECT_EQ(DirExists(directory / "a"), 1);
}

TEST(DirDelete, LeavesAFilledDirectoryWithoutRecursion) {
  const TemporaryDirectory directory;
  fs::create_directories(directory.Native("a/b"));
  EXPECT_EQ(DirDelete(directory / "a", 0, 0), 0);
  EXPECT_EQ(DirDelete(directory / "a/b", 0, 0), 1);
  EXPECT_EQ(DirDelete(directory / "a", 0, 0), 1);
}

TEST(DirDelete, RefusesFilesAndWhatIsMissing) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("file"), "x");
  EXPECT_EQ(DirDelete(directory / "file", 1, 0), 0);
  EXPECT_EQ(DirDelete(directory / "missing", 1, 0), 0);
  EXPECT_EQ(DirDelete("", 1, 0), 0);
  EXPECT_EQ(ReadFile(directory.Native("file")), "x");
}

// Without recursion, so that a library that forgot the check would still delete nothing: what tells
// is the reason in the log.
TEST(DirDelete, RefusesRoots) {
  const TemporaryDirectory directory;
  DebugOptions options;
  options.logFile = directory.Native("log");
  for (const char* root : {"/", "\\", "C:\\", "C:/", "/x/..", "C:\\x\\..\\"}) {
    fs::remove(options.logFile);
    {
      ZelDebugContext context(options);
      LibraryLog().SetContext(&context);
      EXPECT_EQ(DirDelete(root, 0, 0), 0) << root;
      LibraryLog().SetContext(nullptr);
    }
    EXPECT_NE(ReadFile(options.logFile).find("a root is not deleted"), std::string::npos) << root;
  }
}

TEST(DirDelete, DeletesATreeOf100Levels) {
  const TemporaryDirectory directory;
  ZelString path = directory / "";
  path.Append("/d", 100);
  ASSERT_TRUE(PathCreate(path));
  EXPECT_EQ(DirDelete(directory / "d", 1, 0), 1);
  EXPECT_EQ(directory.CountEntries(), 0u);
}

}  // namespace
