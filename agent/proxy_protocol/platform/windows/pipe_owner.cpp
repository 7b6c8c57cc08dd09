#include "agent/proxy_protocol/platform/windows/pipe_owner.h"

#include <sddl.h>
#include <wtsapi32.h>

#include <cstddef>
#include <memory>
#include <vector>

#include "agent/libZel/platform/windows/local_memory.h"
#include "agent/libZel/platform/windows/unique_handle.h"
#include "libZel/string.h"

namespace proxy_protocol {

namespace {

struct WtsFreer {
  void operator()(wchar_t* memory) const { WTSFreeMemory(memory); }
};

/// A TOKEN_USER, empty when the process may not be looked at.
using Account = std::vector<std::byte>;

Account AccountOf(HANDLE process) {
  HANDLE opened = nullptr;
  if (!OpenProcessToken(process, TOKEN_QUERY, &opened)) return {};
  const UniqueHandle token(opened);
  DWORD size = 0;
  GetTokenInformation(token.Get(), TokenUser, nullptr, 0, &size);
  Account account(size);
  if (!GetTokenInformation(token.Get(), TokenUser, account.data(), size, &size)) return {};
  return account;
}

PSID SidOf(Account& account) {
  return reinterpret_cast<TOKEN_USER*>(account.data())->User.Sid;
}

std::string NameOf(const wchar_t* domain, const wchar_t* name) {
  return std::string((ZelString(domain) + ZelString("\\") + ZelString(name)).Utf8());
}

std::string NameOf(Account& account) {
  wchar_t name[256], domain[256];
  DWORD nameSize = 256, domainSize = 256;
  SID_NAME_USE use{};
  if (!LookupAccountSidW(nullptr, SidOf(account), name, &nameSize, domain, &domainSize, &use))
    return {};
  return NameOf(domain, name);
}

std::string UserOf(DWORD session) {
  const auto ask = [session](WTS_INFO_CLASS what) {
    wchar_t* text = nullptr;
    DWORD size = 0;
    WTSQuerySessionInformationW(WTS_CURRENT_SERVER_HANDLE, session, what, &text, &size);
    return std::unique_ptr<wchar_t, WtsFreer>(text);
  };
  const auto name = ask(WTSUserName), domain = ask(WTSDomainName);
  if (!name || !*name || !domain) return {};
  return NameOf(domain.get(), name.get());
}

}  // namespace

std::wstring OwnSid() {
  Account account = AccountOf(GetCurrentProcess());
  wchar_t* text = nullptr;
  if (account.empty() || !ConvertSidToStringSidW(SidOf(account), &text)) return {};
  const LocalMemory<> owner(text);
  return text;
}

// Judges by the process that made the pipe. Should that have gone while somebody else keeps its end
// open, its number may be another process's by now. The owner of the pipe itself would tell; Wine
// names none that matches the maker's account.
PipeOwner OwnerOf(HANDLE pipe) {
  PipeOwner owner;
  ULONG process = 0;
  if (!GetNamedPipeServerProcessId(pipe, &process)) return owner;
  const UniqueHandle opened(OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, process));
  Account account = opened ? AccountOf(opened.Get()) : Account();
  Account own = AccountOf(GetCurrentProcess());
  DWORD session = 0;
  if (account.empty() || !ProcessIdToSessionId(process, &session)) return owner;

  owner.isSystem = IsWellKnownSid(SidOf(account), WinLocalSystemSid);
  owner.isOurs = !own.empty() && EqualSid(SidOf(account), SidOf(own));
  owner.session = session;
  // Names are asked of other machines too.
  if (owner.isSystem || owner.isOurs) return owner;
  owner.account = NameOf(account);
  owner.sessionUser = UserOf(session);
  return owner;
}

}  // namespace proxy_protocol
