#include "agent/service/platform/windows/access_rule.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sddl.h>

#include <string>

#include "agent/libZel/platform/windows/local_memory.h"

namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

LocalMemory<> Descriptor(const std::wstring& text) {
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  const bool isOne = ConvertStringSecurityDescriptorToSecurityDescriptorW(
      text.c_str(), SDDL_REVISION_1, &descriptor, nullptr);
  EXPECT_TRUE(isOne) << "error " << GetLastError();
  return LocalMemory<>(descriptor);
}

std::string Weakness(const std::wstring& text, AccessUse use = AccessUse::kTrusted,
                     PSID own = nullptr) {
  return AccessWeakness(Descriptor(text).get(), use, own);
}

constexpr const wchar_t* kInstaller =
    L"S-1-5-80-956008885-3418522649-1831038044-1853292631-2271478464";
constexpr const wchar_t* kSomebody = L"S-1-5-21-1-2-3-1001";

TEST(AccessRule, TakesWhatWindowsGivesItsProgramDirectory) {
  const std::wstring ti = kInstaller;
  const std::wstring text = L"O:" + ti + L"D:PAI(A;;FA;;;" + ti + L")(A;CIIO;GA;;;" + ti +
                            L")(A;;0x1301bf;;;SY)(A;OICIIO;GA;;;SY)(A;;0x1301bf;;;BA)"
                            L"(A;OICIIO;GA;;;BA)(A;;0x1200a9;;;BU)(A;OICIIO;GXGR;;;BU)"
                            L"(A;OICIIO;GA;;;CO)";
  EXPECT_THAT(Weakness(text), IsEmpty());
}

TEST(AccessRule, TakesAHomeOfSystemAndAdministrators) {
  const std::wstring text = L"O:BAD:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)";
  EXPECT_THAT(Weakness(text, AccessUse::kTrusted), IsEmpty());
  EXPECT_THAT(Weakness(text, AccessUse::kSecret), IsEmpty());
}

TEST(AccessRule, LetsOthersAddToDirectoriesAboveButNotToTheAgentsOwn) {
  // As ProgramData and the root of a volume are.
  for (const wchar_t* const text :
       {L"O:SYD:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;CI;0x116;;;BU)(A;OICI;0x1200a9;;;BU)",
        L"O:SYD:P(A;OICI;FA;;;SY)(A;;0x4;;;AU)(A;OICIIO;SDGXGWGR;;;AU)"}) {
    EXPECT_THAT(Weakness(text, AccessUse::kParent), IsEmpty());
    EXPECT_THAT(Weakness(text, AccessUse::kTrusted), StartsWith("can be changed by "));
  }
}

TEST(AccessRule, RefusesEachRightThatReplacesAnywhere) {
  for (const wchar_t* const right : {L"SD", L"WD", L"WO", L"0x40", L"GA", L"FA"}) {
    const std::wstring text = std::wstring(L"O:BAD:P(A;;FA;;;BA)(A;;") + right + L";;;BU)";
    EXPECT_THAT(Weakness(text, AccessUse::kParent), StartsWith("can be changed by ")) << right;
    EXPECT_THAT(Weakness(text, AccessUse::kTrusted), StartsWith("can be changed by ")) << right;
  }
}

TEST(AccessRule, RefusesEachRightThatChangesTheAgentsOwn) {
  for (const wchar_t* const right : {L"0x2", L"0x4", L"0x10", L"0x100", L"GW", L"FW"}) {
    const std::wstring text = std::wstring(L"O:BAD:P(A;;FA;;;BA)(A;;") + right + L";;;WD)";
    EXPECT_THAT(Weakness(text, AccessUse::kParent), IsEmpty()) << right;
    EXPECT_THAT(Weakness(text, AccessUse::kTrusted), StartsWith("can be changed by ")) << right;
  }
}

TEST(AccessRule, KeepsSecretsFromReaders) {
  for (const wchar_t* const right : {L"0x1", L"FR", L"GR"}) {
    const std::wstring text = std::wstring(L"O:BAD:P(A;;FA;;;BA)(A;;") + right + L";;;BU)";
    EXPECT_THAT(Weakness(text, AccessUse::kTrusted), IsEmpty()) << right;
    EXPECT_THAT(Weakness(text, AccessUse::kSecret), HasSubstr("can be read by ")) << right;
  }
  EXPECT_THAT(Weakness(L"O:BAD:P(A;;FA;;;BA)(A;;0x20;;;BU)", AccessUse::kSecret), IsEmpty());
}

TEST(AccessRule, LooksAtTheOwner) {
  const std::wstring list = L"D:P(A;;FA;;;SY)";
  for (const wchar_t* const owner : {L"SY", L"BA", kInstaller})
    EXPECT_THAT(Weakness(std::wstring(L"O:") + owner + list), IsEmpty()) << owner;
  EXPECT_THAT(Weakness(std::wstring(L"O:") + kSomebody + list),
              "belongs to S-1-5-21-1-2-3-1001, not to administrators");
  EXPECT_THAT(Weakness(std::wstring(L"O:") + kSomebody + list, AccessUse::kParent),
              StartsWith("belongs to "));
  EXPECT_THAT(Weakness(list), "belongs to nobody");
}

TEST(AccessRule, TrustsTheAccountThatTheAgentRunsUnder) {
  const std::wstring text = std::wstring(L"O:") + kSomebody + L"D:P(A;;FA;;;" + kSomebody + L")";
  PSID own = nullptr;
  ASSERT_TRUE(ConvertStringSidToSidW(kSomebody, &own));
  const LocalMemory<> owner(own);
  EXPECT_THAT(Weakness(text, AccessUse::kSecret, own), IsEmpty());
  EXPECT_THAT(Weakness(text, AccessUse::kSecret), StartsWith("belongs to "));
}

TEST(AccessRule, ReadsRightsOfTheOwnerAsTheOwners) {
  EXPECT_THAT(Weakness(L"O:BAD:P(A;;FA;;;SY)(A;;FA;;;OW)", AccessUse::kSecret), IsEmpty());
  EXPECT_THAT(Weakness(L"O:BAD:P(A;;FA;;;SY)(A;;FA;;;CO)", AccessUse::kSecret), IsEmpty());
}

TEST(AccessRule, RefusesWhatHasNoList) {
  EXPECT_THAT(Weakness(L"O:BA"), StartsWith("has no access list"));
  EXPECT_THAT(Weakness(L"O:BAD:P"), IsEmpty());

  PSID administrators = nullptr;
  ASSERT_TRUE(ConvertStringSidToSidW(L"S-1-5-32-544", &administrators));
  const LocalMemory<> owner(administrators);
  SECURITY_DESCRIPTOR open;
  ASSERT_TRUE(InitializeSecurityDescriptor(&open, SECURITY_DESCRIPTOR_REVISION));
  ASSERT_TRUE(SetSecurityDescriptorOwner(&open, administrators, FALSE));
  ASSERT_TRUE(SetSecurityDescriptorDacl(&open, TRUE, nullptr, FALSE));
  EXPECT_THAT(AccessWeakness(&open, AccessUse::kTrusted, nullptr),
              StartsWith("has no access list"));
}

TEST(AccessRule, GivesNothingForDenials) {
  EXPECT_THAT(Weakness(L"O:BAD:P(D;;FA;;;WD)(A;;FA;;;BA)"), IsEmpty());
  EXPECT_THAT(Weakness(L"O:BAD:P(D;;FA;;;BU)(A;;FA;;;BU)"), StartsWith("can be changed by "));
}

}  // namespace
