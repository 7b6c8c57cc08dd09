#include "agent/libZelCore/session_program.h"

#include <windows.h>

#include <userenv.h>
#include <wtsapi32.h>

#include <charconv>
#include <system_error>
#include <utility>

#include "agent/libZel/platform/windows/unique_handle.h"
#include "agent/libZel/system_error_text.h"
#include "agent/libZelCore/core_log.h"
#include "libZel/string.h"

namespace {

constexpr DWORD kNoSession = 0xFFFFFFFF;

DWORD NumberOf(const UserSession& session) {
  DWORD number = kNoSession;
  const char* const end = session.id.data() + session.id.size();
  const auto parsed = std::from_chars(session.id.data(), end, number);
  return parsed.ec == std::errc() && parsed.ptr == end ? number : kNoSession;
}

DWORD OwnSession() {
  DWORD session = kNoSession;
  return ProcessIdToSessionId(GetCurrentProcessId(), &session) ? session : kNoSession;
}

UniqueHandle OwnToken() {
  constexpr DWORD kRights = TOKEN_QUERY | TOKEN_DUPLICATE | TOKEN_ASSIGN_PRIMARY;
  HANDLE token = nullptr;
  return UniqueHandle(OpenProcessToken(GetCurrentProcess(), kRights, &token) ? token : nullptr);
}

/// Whether this process has more rights than the programs that its user starts.
bool IsElevated(HANDLE token) {
  TOKEN_ELEVATION_TYPE type = TokenElevationTypeDefault;
  DWORD size = 0;
  return GetTokenInformation(token, TokenElevationType, &type, sizeof type, &size) &&
         type == TokenElevationTypeFull;
}

/// The integrity of the programs that a user starts; true where it was set.
bool SetMediumIntegrity(HANDLE token) {
  SID_IDENTIFIER_AUTHORITY authority = SECURITY_MANDATORY_LABEL_AUTHORITY;
  PSID level = nullptr;
  if (!AllocateAndInitializeSid(&authority, 1, SECURITY_MANDATORY_MEDIUM_RID, 0, 0, 0, 0, 0, 0, 0,
                                &level))
    return false;
  TOKEN_MANDATORY_LABEL label{{level, SE_GROUP_INTEGRITY}};
  const DWORD size = static_cast<DWORD>(sizeof label + GetLengthSid(level));
  const bool isSet = SetTokenInformation(token, TokenIntegrityLevel, &label, size);
  FreeSid(level);
  return isSet;
}

/// This process's token without what makes it an administrator's, like the one that the system
/// keeps for the user's programs (the linked one, which it gives to nobody but itself for starting
/// any). Null where the system cannot make it.
UniqueHandle OrdinaryToken(HANDLE own) {
  HANDLE made = nullptr;
  if (!CreateRestrictedToken(own, LUA_TOKEN, 0, nullptr, 0, nullptr, 0, nullptr, &made)) return {};
  UniqueHandle token(made);
  return SetMediumIntegrity(token.Get()) ? std::move(token) : UniqueHandle();
}

class Process : public SessionProgram {
 public:
  explicit Process(HANDLE process) : process_(process) {}

  bool IsRunning() override { return WaitForSingleObject(process_.Get(), 0) == WAIT_TIMEOUT; }
  // It has no window that could be told, and no console that is shared.
  void AskToEnd() override { TerminateProcess(process_.Get(), 0); }
  void WaitForEnd(std::chrono::milliseconds patience) override {
    WaitForSingleObject(process_.Get(), static_cast<DWORD>(patience.count()));
  }

 private:
  const UniqueHandle process_;
};

/// The environment that the user's programs get; null means this process's own.
class Environment {
 public:
  explicit Environment(HANDLE token) {
    if (token && !CreateEnvironmentBlock(&block_, token, FALSE)) block_ = nullptr;
  }
  ~Environment() {
    if (block_) DestroyEnvironmentBlock(block_);
  }
  Environment(const Environment&) = delete;
  Environment& operator=(const Environment&) = delete;

  void* Get() const { return block_; }

 private:
  void* block_ = nullptr;
};

/// As the user of `token`, or as this process's own where it is null.
StartedProgram Start(const std::filesystem::path& program, const std::vector<std::string>& options,
                     HANDLE token) {
  const Environment environment(token);
  if (token && !environment.Get())
    return {nullptr, "the user's environment cannot be made: " + SystemErrorText(GetLastError())};
  std::wstring line = L"\"" + program.native() + L"\"";
  for (const std::string& option : options)
    line += L" " + std::wstring(option.begin(), option.end());
  const std::wstring directory = program.parent_path().native();
  wchar_t desktop[] = L"winsta0\\default";
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  startup.lpDesktop = desktop;
  constexpr DWORD kFlags = CREATE_NO_WINDOW | CREATE_UNICODE_ENVIRONMENT | CREATE_NEW_PROCESS_GROUP;
  PROCESS_INFORMATION started{};
  const BOOL isStarted =
      token ? CreateProcessAsUserW(token, program.c_str(), line.data(), nullptr, nullptr, FALSE,
                                   kFlags, environment.Get(), directory.c_str(), &startup, &started)
            : CreateProcessW(program.c_str(), line.data(), nullptr, nullptr, FALSE, kFlags, nullptr,
                             directory.c_str(), &startup, &started);
  if (!isStarted) {
    const DWORD error = GetLastError();
    return {nullptr, "cannot run " + std::string(ZelString(program.c_str()).Utf8()) + ": " +
                         SystemErrorText(error)};
  }
  CloseHandle(started.hThread);
  return {std::make_unique<Process>(started.hProcess), {}};
}

}  // namespace

std::string ProxyPipeOf(const UserSession& session) {
  return NumberOf(session) == kNoSession ? std::string() : R"(\\.\pipe\zelproxy-)" + session.id;
}

bool HasProxyPipe(const UserSession&) {
  return true;
}

bool IsProxyListening(const UserSession& session) {
  const ZelString pipe(ProxyPipeOf(session));
  if (pipe.IsEmpty()) return false;
  constexpr DWORD kShortestWaitMs = 1;
  // A pipe all of whose ends are taken is there, too.
  return WaitNamedPipeW(pipe.GetTCHAR(), kShortestWaitMs) || GetLastError() == ERROR_SEM_TIMEOUT;
}

// The system lets only itself have users' tokens, which shows when one is asked for.
bool MayStartIn(const UserSession& session) {
  return NumberOf(session) != kNoSession;
}

StartedProgram StartInSession(const std::filesystem::path& program, const UserSession& session,
                              const std::vector<std::string>& options) {
  const DWORD number = NumberOf(session);
  HANDLE token = nullptr;
  if (WTSQueryUserToken(number, &token)) {
    const UniqueHandle closer(token);
    return Start(program, options, token);
  }
  const DWORD error = GetLastError();
  if (number != OwnSession())
    return {nullptr, "the user's token is not to be had: " + SystemErrorText(error)};
  // No service, but started by hand in the user's own session. The proxy serves every program of
  // its account: with an administrator's rights it would hand them on.
  if (const UniqueHandle own = OwnToken(); own && IsElevated(own.Get())) {
    const UniqueHandle ordinary = OrdinaryToken(own.Get());
    if (ordinary) return Start(program, options, ordinary.Get());
    CoreLog().WarningWithNL("The proxy gets the rights of the agent, which was started by hand: %S",
                            ZelString(SystemErrorText(GetLastError())));
  }
  return Start(program, options, nullptr);
}
