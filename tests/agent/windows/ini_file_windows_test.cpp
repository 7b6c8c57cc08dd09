// What a file on Windows keeps when its lines are edited, and when it is open elsewhere.

#include <windows.h>

#include <gtest/gtest.h>

#include <string>

#include "libZel/ini_file.h"
#include "tests/agent/temporary_directory.h"

namespace fs = std::filesystem;

namespace {

TEST(FileEditOnWindows, KeepsAttributes) {
  const TemporaryDirectory directory;
  const fs::path file = directory.Native("file");
  WriteFile(file, "a\n");
  constexpr DWORD kAttributes = FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM;
  ASSERT_TRUE(SetFileAttributesW(file.c_str(), kAttributes));
  EXPECT_EQ(File(directory / "file").InsertLine(1, "x\n"), 1);
  EXPECT_EQ(ReadFile(file), "x\na\n");
  EXPECT_EQ(GetFileAttributesW(file.c_str()) & kAttributes, kAttributes);
}

TEST(FileEditOnWindows, RefusesAFileThatNobodyMayShare) {
  const TemporaryDirectory directory;
  const fs::path file = directory.Native("file");
  WriteFile(file, "[S]\na=\n");
  IniFile ini(directory / "file");
  const HANDLE open =
      CreateFileW(file.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
  ASSERT_NE(open, INVALID_HANDLE_VALUE);
  EXPECT_EQ(ini.DeleteLine(2), 0);
  CloseHandle(open);
  EXPECT_EQ(ReadFile(file), "[S]\na=\n");
  EXPECT_EQ(IniFile(directory / "file").FindEntryLine("S", "a"), 0u);
  EXPECT_EQ(directory.CountEntries(), 1u);
}

TEST(FileEditOnWindows, RefusesAFileThatMayOnlyBeRead) {
  const TemporaryDirectory directory;
  const fs::path file = directory.Native("file");
  WriteFile(file, "[S]\na=\n");
  IniFile ini(directory / "file");
  const HANDLE open =
      CreateFileW(file.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
  ASSERT_NE(open, INVALID_HANDLE_VALUE);
  EXPECT_EQ(ini.DeleteLine(2), 0);
  EXPECT_EQ(IniFile(directory / "file").FindEntryLine("S", "a"), 0u);
  CloseHandle(open);
  EXPECT_EQ(ReadFile(file), "[S]\na=\n");
  EXPECT_EQ(directory.CountEntries(), 1u);
}

}  // namespace
