#include "agent/service/platform/windows/access_rule.h"

#include <sddl.h>

#include <array>
#include <cstddef>

#include "agent/libZel/platform/windows/local_memory.h"
#include "libZel/string.h"

namespace {

// Administrators lose nothing by what these may do. The owner's rights are the owner's, who is
// looked at in any case; what is meant for later owners is nobody's here.
constexpr std::array kTrusted = {
    L"S-1-5-18",                                                        // the system
    L"S-1-5-32-544",                                                    // administrators
    L"S-1-5-80-956008885-3418522649-1831038044-1853292631-2271478464",  // the system's installer
};
constexpr std::array kOwners = {L"S-1-3-0", L"S-1-3-4"};

// Whoever may do one of these to a directory can put another in the place of what is below it.
constexpr ACCESS_MASK kReplacing =
    DELETE | WRITE_DAC | WRITE_OWNER | FILE_DELETE_CHILD | GENERIC_ALL;
// With the attributes a file becomes a link, as with its content.
constexpr ACCESS_MASK kChanging = kReplacing | GENERIC_WRITE | FILE_WRITE_DATA | FILE_APPEND_DATA |
                                  FILE_WRITE_EA | FILE_WRITE_ATTRIBUTES;
constexpr ACCESS_MASK kReading = GENERIC_READ | FILE_READ_DATA;

std::wstring SidText(PSID sid) {
  wchar_t* text = nullptr;
  if (!ConvertSidToStringSidW(sid, &text)) return {};
  const LocalMemory<wchar_t> owner(text);
  return text;
}

// "DOMAIN\name", or the number where the system knows no name.
std::string NameOf(PSID sid) {
  wchar_t name[256], domain[256];
  DWORD nameLength = 256, domainLength = 256;
  SID_NAME_USE use;
  if (!LookupAccountSidW(nullptr, sid, name, &nameLength, domain, &domainLength, &use))
    return std::string(ZelString(SidText(sid).c_str()).Utf8());
  const std::wstring full = domainLength > 0 ? std::wstring(domain) + L"\\" + name : name;
  return std::string(ZelString(full.c_str()).Utf8());
}

bool IsTrusted(PSID sid, PSID own) {
  if (own && EqualSid(sid, own)) return true;
  const std::wstring text = SidText(sid);
  for (const wchar_t* const trusted : kTrusted)
    if (text == trusted) return true;
  return false;
}

bool IsOwnerItself(PSID sid) {
  const std::wstring text = SidText(sid);
  for (const wchar_t* const owner : kOwners)
    if (text == owner) return true;
  return false;
}

ACCESS_MASK Forbidden(AccessUse use) {
  switch (use) {
    case AccessUse::kParent:
      return kReplacing;
    case AccessUse::kTrusted:
      return kChanging;
    case AccessUse::kSecret:
      break;
  }
  return kChanging | kReading;
}

// An entry that denies takes nothing away from what others allow: which of them counts depends on
// groups that are not known here.
std::string EntryWeakness(const ACE_HEADER* entry, ACCESS_MASK forbidden, PSID own) {
  if (entry->AceFlags & INHERIT_ONLY_ACE) return {};
  if (entry->AceType == ACCESS_DENIED_ACE_TYPE || entry->AceType == ACCESS_DENIED_CALLBACK_ACE_TYPE)
    return {};
  if (entry->AceType != ACCESS_ALLOWED_ACE_TYPE &&
      entry->AceType != ACCESS_ALLOWED_CALLBACK_ACE_TYPE)
    return "has an entry of an unknown kind in its access list";

  // Both kinds begin alike.
  const auto* const allowed = reinterpret_cast<const ACCESS_ALLOWED_ACE*>(entry);
  if ((allowed->Mask & forbidden) == 0) return {};
  PSID const sid = const_cast<DWORD*>(&allowed->SidStart);
  if (IsTrusted(sid, own) || IsOwnerItself(sid)) return {};
  const bool isChange = (allowed->Mask & forbidden & ~kReading) != 0;
  return std::string(isChange ? "can be changed by " : "holds a secret and can be read by ") +
         NameOf(sid);
}

}  // namespace

std::string AccessWeakness(PSECURITY_DESCRIPTOR descriptor, AccessUse use, PSID own) {
  PSID owner = nullptr;
  BOOL isDefault = FALSE;
  if (!GetSecurityDescriptorOwner(descriptor, &owner, &isDefault) || !owner)
    return "belongs to nobody";
  if (!IsTrusted(owner, own)) return "belongs to " + NameOf(owner) + ", not to administrators";

  BOOL isPresent = FALSE;
  ACL* list = nullptr;
  if (!GetSecurityDescriptorDacl(descriptor, &isPresent, &list, &isDefault) || !isPresent || !list)
    return "has no access list, so everybody may change it";
  for (DWORD i = 0; i < list->AceCount; ++i) {
    void* entry = nullptr;
    if (!GetAce(list, i, &entry)) return "has an access list that cannot be read";
    std::string weakness = EntryWeakness(static_cast<ACE_HEADER*>(entry), Forbidden(use), own);
    if (!weakness.empty()) return weakness;
  }
  return {};
}
