#include "agent/proxy_protocol/platform/windows/pipe_owner.h"

#include <wtsapi32.h>

#include <memory>

#include "agent/libZel/platform/windows/process_account.h"
#include "agent/libZel/platform/windows/unique_handle.h"
#include "libZel/string.h"

namespace proxy_protocol {

namespace {

struct WtsFreer {
  void operator()(wchar_t* memory) const { WTSFreeMemory(memory); }
};

std::string NameOf(const wchar_t* domain, const wchar_t* name) {
  return std::string((ZelString(domain) + ZelString("\\") + ZelString(name)).Utf8());
}

std::string NameOf(const ProcessAccount& account) {
  wchar_t name[256], domain[256];
  DWORD nameSize = 256, domainSize = 256;
  SID_NAME_USE use{};
  if (!LookupAccountSidW(nullptr, account.Sid(), name, &nameSize, domain, &domainSize, &use))
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

// Judges by the process that made the pipe. Should that have gone while somebody else keeps its end
// open, its number may be another process's by now. The owner of the pipe itself would tell; Wine
// names none that matches the maker's account.
PipeOwner OwnerOf(HANDLE pipe) {
  PipeOwner owner;
  ULONG process = 0;
  if (!GetNamedPipeServerProcessId(pipe, &process)) return owner;
  const UniqueHandle opened(OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, process));
  if (!opened) return owner;
  const ProcessAccount account(opened.Get());
  const ProcessAccount own;
  DWORD session = 0;
  if (account.Sid() == nullptr || !ProcessIdToSessionId(process, &session)) return owner;

  owner.isSystem = IsWellKnownSid(account.Sid(), WinLocalSystemSid);
  owner.isOurs = own.Sid() != nullptr && EqualSid(account.Sid(), own.Sid());
  owner.session = session;
  // Names are asked of other machines too.
  if (owner.isSystem || owner.isOurs) return owner;
  owner.account = NameOf(account);
  owner.sessionUser = UserOf(session);
  return owner;
}

}  // namespace proxy_protocol
