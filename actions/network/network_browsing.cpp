#include "actions/network/network_browsing.h"

#include <cstdint>
#include <memory>

#include "windows_api.h"

namespace {

constexpr DWORD kNamesOnly = 100;
/// The terminator included.
constexpr int kMaxDomainCharacters = 64;

struct FreeBuffer {
  void operator()(uint8_t* buffer) const { NetApiBufferFree(buffer); }
};

/// Lists what `serverType` stands for in `domain`, or in the computer's own when that is null.
ResultCode ListNames(ZelContainer* params, DWORD serverType, const WCHAR* domain) {
  uint8_t* buffer = nullptr;
  DWORD count = 0;
  DWORD total = 0;
  const NET_API_STATUS status = NetServerEnum(nullptr, kNamesOnly, &buffer, MAX_PREFERRED_LENGTH,
                                              &count, &total, serverType, domain, nullptr);
  // A part of a list is stored, too, with a status that says that there is more.
  const std::unique_ptr<uint8_t, FreeBuffer> owned(buffer);
  if (status != 0) return kFailure;

  const auto* records = reinterpret_cast<const SERVER_INFO_100*>(buffer);
  for (DWORD i = 0; i < count; ++i) {
    ZelString name;
    name.SetToTCHAR(records[i].sv100_name);
    params->SetString(kValues, name, i);
  }
  return kSuccess;
}

}  // namespace

ResultCode CoreUtilsListDomains(ZelContainer* params) {
  params->Clear();

  return ListNames(params, SV_TYPE_DOMAIN_ENUM, nullptr);
}

ResultCode CoreUtilsListServers(ZelContainer* params) {
  const ZelString domainName = ReadString(*params, "DomainName");
  params->Clear();

  if (domainName.IsEmpty()) return ListNames(params, SV_TYPE_ALL, nullptr);

  WCHAR domain[kMaxDomainCharacters] = {};
  const char* narrow = domainName.GetString(kEncodingUtf8);
  // A name that does not fit is no domain's.
  if (MultiByteToWideChar(CP_ACP, 0, narrow, -1, domain, kMaxDomainCharacters) == 0) {
    return kFailure;
  }
  return ListNames(params, SV_TYPE_ALL, domain);
}
