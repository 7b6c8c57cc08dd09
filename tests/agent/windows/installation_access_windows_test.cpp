#include "agent/service/installation_access.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
// clang-format off: the system's headers want this order.
#include <aclapi.h>
#include <sddl.h>
#include <windows.h>
// clang-format on

#include "tests/agent/temporary_directory.h"

namespace {

namespace fs = std::filesystem;
using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;

void GiveAccess(const fs::path& path, const wchar_t* list) {
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  ASSERT_TRUE(ConvertStringSecurityDescriptorToSecurityDescriptorW(list, SDDL_REVISION_1,
                                                                   &descriptor, nullptr));
  EXPECT_TRUE(SetFileSecurityW(path.c_str(), DACL_SECURITY_INFORMATION, descriptor));
  LocalFree(descriptor);
}

class InstallationAccess : public testing::Test {
 protected:
  InstallationAccess() : inner_(directory_.Native() / "inner"), file_(inner_ / "file") {
    fs::create_directory(inner_);
    WriteFile(file_, "content");
  }
  ~InstallationAccess() override { GiveAccess(inner_, L"D:P(A;OICI;FA;;;BA)(A;OICI;FA;;;WD)"); }

  const TemporaryDirectory directory_;
  const fs::path inner_;
  const fs::path file_;
};

TEST_F(InstallationAccess, FindsNothingWrongWithAnAccountsOwnFiles) {
  EXPECT_THAT(FindWeakness(file_, PathUse::kTrusted), IsEmpty());
  EXPECT_THAT(FindWeakness(inner_ / "missing" / "too", PathUse::kTrusted), IsEmpty());
}

TEST_F(InstallationAccess, NamesTheDirectoryAboveThatOthersMayChange) {
  GiveAccess(inner_, L"D:P(A;OICI;FA;;;BA)(A;OICI;FA;;;WD)");
  for (const fs::path& path : {file_, inner_ / "missing", inner_}) {
    EXPECT_THAT(FindWeakness(path, PathUse::kTrusted),
                AllOf(HasSubstr("inner can be changed by "), Not(HasSubstr("file"))))
        << path;
  }
}

TEST_F(InstallationAccess, KeepsSecretsFromReaders) {
  GiveAccess(file_, L"D:P(A;;FA;;;BA)(A;;FR;;;WD)");
  EXPECT_THAT(FindWeakness(file_, PathUse::kTrusted), IsEmpty());
  EXPECT_THAT(FindWeakness(file_, PathUse::kSecret), HasSubstr("file holds a secret"));
  GiveAccess(file_, L"D:P(A;;FA;;;BA)");
  EXPECT_THAT(FindWeakness(file_, PathUse::kSecret), IsEmpty());
}

}  // namespace
