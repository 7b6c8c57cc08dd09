#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "libZel/directory.h"
#include "tests/agent/temporary_directory.h"

namespace fs = std::filesystem;

namespace {

using testing::ElementsAre;

TEST(DirListFiles, DoesNotFollowLinks) {
  const TemporaryDirectory directory;
  fs::create_directory(directory.Native("sub"));
  WriteFile(directory.Native("sub/file"), "x");
  fs::create_directory_symlink(directory.Native(), directory.Native("sub/loop"));
  fs::create_symlink("file", directory.Native("sub/link"));
  fs::create_symlink("none", directory.Native("sub/broken"));
  EXPECT_THAT(DirListFiles(directory / "", true, false, false),
              ElementsAre("broken", "file", "link", "loop", "sub"));
  EXPECT_THAT(DirListFiles(directory / "", true, false, true),
              ElementsAre("broken", "file", "link"));
}

TEST(DirListFiles, EntersNoNameThatWouldLeadElsewhere) {
  const TemporaryDirectory directory;
  fs::create_directories(directory.Native() / "a\\b");
  WriteFile(directory.Native() / "a\\b" / "hidden", "x");
  fs::create_directories(directory.Native("a/b"));
  WriteFile(directory.Native("a/b/file"), "x");
  EXPECT_THAT(DirListFiles(directory / "", true, false, false),
              ElementsAre("a", "a\\b", "b", "file"));
}

TEST(DirListFiles, KeepsBytesThatAreNoCharacter) {
  const TemporaryDirectory directory;
  fs::create_directory(directory.Native() / "d\xFF");
  WriteFile(directory.Native() / "d\xFF" / "f\xFE", "x");
  EXPECT_THAT(DirListFiles(directory / "", true, false, true), ElementsAre("f\xFE"));
}

}  // namespace
