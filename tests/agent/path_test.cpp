#include "libZel/path.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "agent/libZel/native_path.h"
#include "libZel/file.h"
#include "tests/agent/temporary_directory.h"

namespace {

using Pieces = std::vector<std::string>;

Pieces Split(const ZelString& path) {
  ZelString drive, directory, name, extension;
  SplitPath(path, &drive, &directory, &name, &extension);
  EXPECT_EQ(drive + directory + name + extension, path);
  return {std::string(drive.Utf8()), std::string(directory.Utf8()), std::string(name.Utf8()),
          std::string(extension.Utf8())};
}

TEST(SplitPath, TakesADriveLetter) {
  EXPECT_EQ(Split("C:\\data\\report.txt"), (Pieces{"C:", "\\data\\", "report", ".txt"}));
  EXPECT_EQ(Split("C:/x/y"), (Pieces{"C:", "/x/", "y", ""}));
  EXPECT_EQ(Split("C:"), (Pieces{"C:", "", "", ""}));
  EXPECT_EQ(Split("c:name.e"), (Pieces{"c:", "", "name", ".e"}));
  EXPECT_EQ(Split("1:/x"), (Pieces{"", "1:/", "x", ""}));
}

TEST(SplitPath, TakesAShareAsDrive) {
  EXPECT_EQ(Split("\\\\server\\share\\a\\b.c"), (Pieces{"\\\\server\\share", "\\a\\", "b", ".c"}));
  EXPECT_EQ(Split("//server/share/a"), (Pieces{"//server/share", "/", "a", ""}));
  EXPECT_EQ(Split("//server/share"), (Pieces{"//server/share", "", "", ""}));
  EXPECT_EQ(Split("//server"), (Pieces{"", "//", "server", ""}));
  EXPECT_EQ(Split("///a/b"), (Pieces{"", "///a/", "b", ""}));
}

TEST(SplitPath, TakesRelativePaths) {
  EXPECT_EQ(Split("a/b\\c.tar.gz"), (Pieces{"", "a/b\\", "c.tar", ".gz"}));
  EXPECT_EQ(Split("name"), (Pieces{"", "", "name", ""}));
  EXPECT_EQ(Split(""), (Pieces{"", "", "", ""}));
  EXPECT_EQ(Split("a.b/c"), (Pieces{"", "a.b/", "c", ""}));
}

TEST(SplitPath, KeepsALeadingDotInTheName) {
  EXPECT_EQ(Split("/data/.profile"), (Pieces{"", "/data/", ".profile", ""}));
  EXPECT_EQ(Split("/data/.profile.bak"), (Pieces{"", "/data/", ".profile", ".bak"}));
  EXPECT_EQ(Split("/data/."), (Pieces{"", "/data/", ".", ""}));
  EXPECT_EQ(Split("/data/.."), (Pieces{"", "/data/", "..", ""}));
  EXPECT_EQ(Split("name."), (Pieces{"", "", "name", "."}));
}

TEST(SplitPath, LeavesOutWhatIsNotWanted) {
  ZelString extension("before");
  SplitPath("C:/a.txt", nullptr, nullptr, nullptr, &extension);
  EXPECT_EQ(extension, ZelString(".txt"));
  SplitPath("C:/a", nullptr, nullptr, nullptr, &extension);
  EXPECT_EQ(extension, ZelString(""));
}

TEST(SplitPath, GivesBackAnyBytes) {
  Split(ZelString("a\xFF/\xC3.\x80"));
  Split(ZelString(std::string_view("a\0b/c\0.d", 8)));
}

ZelString Normal(const ZelString& native) {
  return CompletePath(native);
}

TEST(CompletePath, StartsRelativePathsAtTheWorkingDirectory) {
  const ZelString here = FromNativePath(std::filesystem::current_path());
  EXPECT_EQ(CompletePath("a/b"), Normal(here + "/a/b"));
  EXPECT_EQ(CompletePath("."), Normal(here));
  EXPECT_EQ(CompletePath("a\\..\\b\\"), Normal(here + "/b/"));
}

TEST(CompletePath, ResolvesDotsInTheText) {
  EXPECT_EQ(CompletePath("C:/a/./b/../../c"), CompletePath("C:/c"));
  EXPECT_EQ(CompletePath("C:/../../c"), CompletePath("C:/c"));
  EXPECT_EQ(CompletePath("C:\\config\\../bin"), CompletePath("C:/bin"));
  EXPECT_EQ(CompletePath("C:/a//b"), CompletePath("C:\\a\\b"));
}

TEST(CompletePath, KeepsTheDriveAndAClosingSeparator) {
  EXPECT_TRUE(CompletePath("D:/x").StartsWith("D:"));
  EXPECT_TRUE(CompletePath("\\\\server\\share/x/..").StartsWith("\\\\server\\share"));
  EXPECT_NE(CompletePath("C:/a/"), CompletePath("C:/a"));
  EXPECT_EQ(CompletePath("C:"), CompletePath("C:/"));
}

TEST(CompletePath, ChangesNothingTheSecondTime) {
  for (const char* path : {"a", "/", "//", "///a", "//a/b/c", "\\\\a\\b\\..\\c", "\\\\a",
                           "C:", "c:x", "/\\a\\b\\c", "../..", "a/", ".", "http://host/x"}) {
    const ZelString once = CompletePath(path);
    EXPECT_EQ(CompletePath(once), once) << path;
  }
}

TEST(CompletePath, LeavesEmptyTextsAndUrlsAlone) {
  EXPECT_EQ(CompletePath(""), ZelString(""));
  EXPECT_EQ(CompletePath("https://host/a/../b"), ZelString("https://host/a/../b"));
}

TEST(PathCreate, CreatesEveryMissingParent) {
  const TemporaryDirectory directory;
  EXPECT_TRUE(PathCreate(directory / "a/b\\c/d/"));
  EXPECT_EQ(DirExists(directory / "a/b/c/d"), 1);
  EXPECT_TRUE(PathCreate(directory / "a/b/c/d")) << "it exists";
}

TEST(PathCreate, FailsWhereAFileStands) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("file"), "x");
  EXPECT_FALSE(PathCreate(directory / "file"));
  EXPECT_FALSE(PathCreate(directory / "file/below"));
  EXPECT_EQ(ReadFile(directory.Native("file")), "x");
}

TEST(PathCreate, RefusesWhatNamesNothing) {
  EXPECT_FALSE(PathCreate(""));
  EXPECT_FALSE(PathCreate("http://host/directory"));
  EXPECT_FALSE(PathCreate(ZelString(std::string_view("a\0b", 3))));
}

TEST(PathCreate, MakesPathsBeyond300Characters) {
  const TemporaryDirectory directory;
  ZelString path = directory / "";
  for (int i = 0; i < 8; ++i) path += ZelString("\\").Append('n', 60);
  EXPECT_TRUE(PathCreate(path));
  EXPECT_EQ(DirExists(path), 1);
  EXPECT_EQ(DirDelete(directory / ZelString().Append('n', 60), 1, 0), 1);
}

}  // namespace
