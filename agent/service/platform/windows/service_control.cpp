#include "agent/service/service_control.h"

#include <windows.h>

#include <chrono>
#include <cstdio>
#include <exception>
#include <memory>
#include <stdexcept>
#include <system_error>
#include <thread>

#include "agent/service/process.h"
#include "libZel/string.h"

namespace {

constexpr const wchar_t* kServiceName = L"zelagent";
constexpr const wchar_t* kDisplayName = L"Endpoint agent";
constexpr DWORD kPendingMs = 60000;
constexpr int kStopChecks = 300;

[[noreturn]] void Fail(const char* step, DWORD error) {
  throw std::runtime_error(std::string("cannot ") + step + ": " +
                           std::system_category().message(static_cast<int>(error)));
}

struct ServiceCloser {
  using pointer = SC_HANDLE;
  void operator()(SC_HANDLE handle) const { CloseServiceHandle(handle); }
};
using ServiceHandle = std::unique_ptr<SC_HANDLE, ServiceCloser>;

ServiceHandle OpenManager(DWORD access) {
  ServiceHandle manager(OpenSCManagerW(nullptr, nullptr, access));
  if (!manager) Fail("open the service manager", GetLastError());
  return manager;
}

// One argument, quoted so that the C run-time library takes it apart as it was.
std::wstring Quoted(const std::wstring& argument) {
  std::wstring result = L"\"";
  size_t backslashes = 0;
  for (const wchar_t c : argument) {
    if (c == L'"') result.append(backslashes + 1, L'\\');
    backslashes = c == L'\\' ? backslashes + 1 : 0;
    result += c;
  }
  result.append(backslashes, L'\\');
  return result + L'"';
}

/// The running service; the service manager's functions take no context of ours.
struct Service {
  const std::function<int(const std::function<void()>&)>* run = nullptr;
  SERVICE_STATUS_HANDLE handle = nullptr;
  int result = 1;
};
Service service;

void Report(DWORD state, DWORD exitCode = NO_ERROR) {
  SERVICE_STATUS status{};
  status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
  status.dwCurrentState = state;
  status.dwControlsAccepted =
      state == SERVICE_RUNNING ? SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_SHUTDOWN : 0;
  status.dwWin32ExitCode = exitCode;
  const bool isPending = state == SERVICE_START_PENDING || state == SERVICE_STOP_PENDING;
  status.dwWaitHint = isPending ? kPendingMs : 0;
  SetServiceStatus(service.handle, &status);
}

DWORD WINAPI OnControl(DWORD control, DWORD, void*, void*) {
  switch (control) {
    case SERVICE_CONTROL_STOP:
    case SERVICE_CONTROL_SHUTDOWN:
      Report(SERVICE_STOP_PENDING);
      StopRequest::Raise();
      return NO_ERROR;
    case SERVICE_CONTROL_INTERROGATE:
      return NO_ERROR;
    default:
      return ERROR_CALL_NOT_IMPLEMENTED;
  }
}

void WINAPI ServiceMain(DWORD, wchar_t**) {
  service.handle = RegisterServiceCtrlHandlerExW(kServiceName, OnControl, nullptr);
  if (!service.handle) return;
  Report(SERVICE_START_PENDING);
  try {
    service.result = (*service.run)([] { Report(SERVICE_RUNNING); });
  } catch (const std::exception& failure) {
    // The agent's log may be what could not be opened.
    OutputDebugStringA(failure.what());
    std::fprintf(stderr, "zelagent: %s\n", failure.what());
  }
  Report(SERVICE_STOPPED, service.result == 0 ? NO_ERROR : ERROR_SERVICE_SPECIFIC_ERROR);
}

void StopAndWait(SC_HANDLE handle) {
  SERVICE_STATUS status{};
  if (!ControlService(handle, SERVICE_CONTROL_STOP, &status)) return;
  for (int i = 0; i < kStopChecks && status.dwCurrentState != SERVICE_STOPPED; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    if (!QueryServiceStatus(handle, &status)) return;
  }
}

}  // namespace

const bool kHasServiceControl = true;

void InstallService(const std::vector<std::string>& arguments) {
  std::wstring command = Quoted((ProgramDirectory() / L"zelagent.exe").native());
  for (const std::string& argument : arguments)
    command += L" " + Quoted(ZelString(argument).GetTCHAR());

  const ServiceHandle manager = OpenManager(SC_MANAGER_CREATE_SERVICE);
  const ServiceHandle installed(
      CreateServiceW(manager.get(), kServiceName, kDisplayName, SERVICE_ALL_ACCESS,
                     SERVICE_WIN32_OWN_PROCESS, SERVICE_AUTO_START, SERVICE_ERROR_NORMAL,
                     command.c_str(), nullptr, nullptr, nullptr, nullptr, nullptr));
  if (!installed) Fail("install the service", GetLastError());
}

void RemoveService() {
  const ServiceHandle manager = OpenManager(SC_MANAGER_CONNECT);
  const ServiceHandle installed(
      OpenServiceW(manager.get(), kServiceName, DELETE | SERVICE_STOP | SERVICE_QUERY_STATUS));
  if (!installed) Fail("open the service", GetLastError());
  StopAndWait(installed.get());
  if (!DeleteService(installed.get())) Fail("remove the service", GetLastError());
}

int RunAsService(const std::function<int(const std::function<void()>&)>& run) {
  service.run = &run;
  wchar_t name[] = L"zelagent";
  const SERVICE_TABLE_ENTRYW table[] = {{name, ServiceMain}, {nullptr, nullptr}};
  if (!StartServiceCtrlDispatcherW(table))
    Fail("run as a service (the service manager did not start this program)", GetLastError());
  return service.result;
}
