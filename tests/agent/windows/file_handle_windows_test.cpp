// What a file on Windows keeps when it is written anew: its access list and its attributes.

#include <windows.h>

#include <aclapi.h>
#include <gtest/gtest.h>
#include <sddl.h>

#include <memory>
#include <string>

#include "agent/libZel/platform/windows/local_memory.h"
#include "libZel/file.h"
#include "tests/agent/temporary_directory.h"

namespace fs = std::filesystem;

namespace {

// Everything for administrators and the owner, nothing for anybody else, nothing handed down.
constexpr const wchar_t* kPrivate = L"D:P(A;;FA;;;BA)(A;;FA;;;OW)(A;;FA;;;SY)";
constexpr const wchar_t* kReadableByAll = L"D:P(A;;FA;;;BA)(A;;FA;;;SY)(A;;FR;;;WD)";

void SetAccess(const fs::path& path, const wchar_t* text) {
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  ASSERT_TRUE(ConvertStringSecurityDescriptorToSecurityDescriptorW(text, SDDL_REVISION_1,
                                                                   &descriptor, nullptr));
  const LocalMemory<> owned(descriptor);
  ASSERT_TRUE(SetFileSecurityW(path.c_str(), DACL_SECURITY_INFORMATION, descriptor));
}

// The access list as text, as the system tells it.
std::wstring AccessOf(const fs::path& path) {
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  if (GetNamedSecurityInfoW(path.c_str(), SE_FILE_OBJECT, DACL_SECURITY_INFORMATION, nullptr,
                            nullptr, nullptr, nullptr, &descriptor) != ERROR_SUCCESS) {
    return L"unknown";
  }
  const LocalMemory<> owned(descriptor);
  wchar_t* text = nullptr;
  if (!ConvertSecurityDescriptorToStringSecurityDescriptorW(
          descriptor, SDDL_REVISION_1, DACL_SECURITY_INFORMATION, &text, nullptr)) {
    return L"unknown";
  }
  const LocalMemory<> ownedText(text);
  return text;
}

void Renew(const ZelString& path) {
  ASSERT_EQ(FileDelete(path, 0), 0);
  const int handle = FileCreate(path, 0);
  ASSERT_NE(handle, -1);
  EXPECT_EQ(FileWrite(handle, "new", 3), 3u);
  EXPECT_EQ(FileClose(handle), 0);
}

TEST(FileCreateOnWindows, GivesTheAccessListOfTheDeletedFileToTheNewOne) {
  const TemporaryDirectory directory;
  for (const wchar_t* access : {kPrivate, kReadableByAll}) {
    const fs::path file = directory.Native("file");
    WriteFile(file, "old");
    SetAccess(file, access);
    const std::wstring before = AccessOf(file);
    Renew(directory / "file");
    EXPECT_EQ(AccessOf(file), before);
    EXPECT_EQ(FileDelete(directory / "file", 0), 0);
  }
}

TEST(FileCreateOnWindows, GivesAttributesOfTheDeletedFileToTheNewOne) {
  const TemporaryDirectory directory;
  const fs::path file = directory.Native("file");
  WriteFile(file, "old");
  constexpr DWORD kAttributes = FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM;
  ASSERT_TRUE(SetFileAttributesW(file.c_str(), kAttributes));
  Renew(directory / "file");
  EXPECT_EQ(GetFileAttributesW(file.c_str()) & kAttributes, kAttributes);
}

TEST(FileCopyOnWindows, TakesOverTheAccessList) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("source"), "x");
  for (const wchar_t* access : {kPrivate, kReadableByAll}) {
    SetAccess(directory.Native("source"), access);
    EXPECT_EQ(FileCopy(directory / "source", directory / "copy", 0), 0);
    EXPECT_EQ(AccessOf(directory.Native("copy")), AccessOf(directory.Native("source")));
  }
}

TEST(FileCopyOnWindows, ClearsTheReadOnlyAttributeAndKeepsTheOthers) {
  const TemporaryDirectory directory;
  const fs::path source = directory.Native("source");
  WriteFile(source, "x");
  ASSERT_TRUE(SetFileAttributesW(source.c_str(), FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN));
  EXPECT_EQ(FileCopy(directory / "source", directory / "copy", 0), 0);
  const DWORD attributes = GetFileAttributesW(directory.Native("copy").c_str());
  EXPECT_EQ(attributes & FILE_ATTRIBUTE_READONLY, 0u);
  EXPECT_EQ(attributes & FILE_ATTRIBUTE_HIDDEN, DWORD{FILE_ATTRIBUTE_HIDDEN});
  ASSERT_TRUE(SetFileAttributesW(source.c_str(), FILE_ATTRIBUTE_NORMAL));
}

}  // namespace
