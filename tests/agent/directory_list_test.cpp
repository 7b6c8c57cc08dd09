#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "libZel/directory.h"
#include "libZel/path.h"
#include "tests/agent/temporary_directory.h"

namespace fs = std::filesystem;

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class DirListFilesTest : public testing::Test {
 protected:
  DirListFilesTest() {
    fs::create_directories(directory_.Native("b/deep"));
    WriteFile(directory_.Native("c.txt"), "x");
    WriteFile(directory_.Native("a.txt"), "x");
    WriteFile(directory_.Native("b/inner.txt"), "x");
    WriteFile(directory_.Native("b/deep/inmost.txt"), "x");
  }

  // The whole path of an entry, with the separators of the platform.
  ZelString Path(const ZelString& name) const { return CompletePath(directory_ / name); }

  TemporaryDirectory directory_;
};

TEST_F(DirListFilesTest, ListsTheEntriesByName) {
  EXPECT_THAT(DirListFiles(directory_ / "", false, false, false),
              ElementsAre("a.txt", "b", "c.txt"));
  EXPECT_THAT(DirListFiles(directory_ / "", false, false, true), ElementsAre("a.txt", "c.txt"));
}

TEST_F(DirListFilesTest, GivesFullPaths) {
  EXPECT_THAT(DirListFiles(directory_ / "", false, true, false),
              ElementsAre(Path("a.txt"), Path("b"), Path("c.txt")));
  EXPECT_THAT(DirListFiles(directory_ / "b", false, true, true), ElementsAre(Path("b/inner.txt")));
}

TEST_F(DirListFilesTest, ListsWhatIsBelow) {
  EXPECT_THAT(DirListFiles(directory_ / "", true, false, false),
              ElementsAre("a.txt", "b", "c.txt", "deep", "inmost.txt", "inner.txt"));
  EXPECT_THAT(
      DirListFiles(directory_ / "", true, true, true),
      ElementsAre(Path("a.txt"), Path("b/deep/inmost.txt"), Path("b/inner.txt"), Path("c.txt")));
}

TEST_F(DirListFilesTest, ListsNothingWhereNothingCanBeRead) {
  EXPECT_THAT(DirListFiles(directory_ / "none", true, true, true), IsEmpty());
  EXPECT_THAT(DirListFiles(directory_ / "a.txt", true, true, true), IsEmpty());
  EXPECT_THAT(DirListFiles("", true, true, true), IsEmpty());
}

TEST_F(DirListFilesTest, GoesDownFarWithoutEnd) {
  fs::path path = directory_.Native("b");
  for (int i = 0; i < 60; ++i) path /= "d";
  fs::create_directories(path);
  WriteFile(path / "end", "x");
  const auto files = DirListFiles(directory_ / "b", true, false, true);
  EXPECT_THAT(files, ElementsAre("end", "inmost.txt", "inner.txt"));
}

}  // namespace
