#include "agent/libZelCore/session_program.h"

#include <windows.h>

#include <userenv.h>
#include <wtsapi32.h>

#include <charconv>
#include <system_error>

#include "libZel/string.h"

namespace {

std::string ErrorText(DWORD error) {
  return std::system_category().message(static_cast<int>(error));
}

struct HandleCloser {
  using pointer = HANDLE;
  void operator()(HANDLE handle) const { CloseHandle(handle); }
};
using Handle = std::unique_ptr<HANDLE, HandleCloser>;

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

/// Whether this process has more rights than the programs that its user starts.
bool IsElevated() {
  HANDLE token = nullptr;
  if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token)) return true;
  const Handle closer(token);
  TOKEN_ELEVATION_TYPE type = TokenElevationTypeFull;
  DWORD size = 0;
  if (!GetTokenInformation(token, TokenElevationType, &type, sizeof type, &size)) return true;
  return type == TokenElevationTypeFull;
}

class Process : public SessionProgram {
 public:
  explicit Process(HANDLE process) : process_(process) {}

  bool IsRunning() override { return WaitForSingleObject(process_.get(), 0) == WAIT_TIMEOUT; }
  // It has no window that could be told, and no console that is shared.
  void AskToEnd() override { TerminateProcess(process_.get(), 0); }
  void WaitForEnd(std::chrono::milliseconds patience) override {
    WaitForSingleObject(process_.get(), static_cast<DWORD>(patience.count()));
  }

 private:
  const Handle process_;
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
StartedProgram Start(const std::filesystem::path& program, HANDLE token) {
  const Environment environment(token);
  if (token && !environment.Get())
    return {nullptr, "the user's environment cannot be made: " + ErrorText(GetLastError())};
  std::wstring line = L"\"" + program.native() + L"\"";
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
                         ErrorText(error)};
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

StartedProgram StartInSession(const std::filesystem::path& program, const UserSession& session) {
  const DWORD number = NumberOf(session);
  HANDLE token = nullptr;
  if (WTSQueryUserToken(number, &token)) {
    const Handle closer(token);
    return Start(program, token);
  }
  const DWORD error = GetLastError();
  if (number != OwnSession())
    return {nullptr, "the user's token is not to be had: " + ErrorText(error)};
  // The proxy serves every program of its account: with these rights it would hand them on.
  if (IsElevated()) return {nullptr, "the agent runs with more rights than the user has"};
  return Start(program, nullptr);
}
