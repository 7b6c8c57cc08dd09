#include "agent/libZelCore/private_file.h"

#include <gtest/gtest.h>

#include "tests/agent/temporary_directory.h"

namespace {

namespace fs = std::filesystem;

TEST(WritePrivateFile, KeepsTheFileToItsOwner) {
  TemporaryDirectory directory;
  const fs::path file = directory.Native() / "users";
  WriteFile(file, "old, for everyone");
  fs::permissions(file, fs::perms::all);
  WritePrivateFile(file, "new");
  EXPECT_EQ(ReadFile(file), "new");
  EXPECT_EQ(fs::status(file).permissions(), fs::perms::owner_read | fs::perms::owner_write);
  EXPECT_EQ(directory.CountEntries(), 1U);
}

TEST(WritePrivateFile, NamesTheFileThatItCannotWrite) {
  TemporaryDirectory directory;
  const fs::path file = directory.Native() / "missing" / "users";
  try {
    WritePrivateFile(file, "new");
    FAIL() << "written into a missing directory";
  } catch (const std::runtime_error& error) {
    EXPECT_NE(std::string(error.what()).find("missing/users"), std::string::npos) << error.what();
  }
}

}  // namespace
