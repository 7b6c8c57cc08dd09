#include "agent/service/service_control.h"

#include <windows.h>

#include <cstdio>
#include <exception>
#include <iterator>
#include <memory>
#include <stdexcept>

#include "agent/libZel/system_error_text.h"
#include "agent/service/installation_check.h"
#include "agent/service/platform/windows/running_programs.h"
#include "agent/service/process.h"
#include "libZel/string.h"

namespace {

constexpr const wchar_t* kServiceName = L"zelagent";
constexpr const wchar_t* kDisplayName = L"Endpoint agent";
constexpr const wchar_t* kDescription =
    L"Answers the administrators of this machine and the other agents of its fleet.";
constexpr DWORD kPendingMs = 60000;
constexpr DWORD kCheckMs = 100;
constexpr int kStopChecks = 300;
// Scripts at the start run before the service says that it runs.
constexpr int kStartChecks = 3000;
constexpr DWORD kProcessEndMs = 30000;

[[noreturn]] void Fail(const char* step, DWORD error) {
  throw std::runtime_error(std::string("cannot ") + step + ": " + SystemErrorText(error));
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
  status.dwServiceSpecificExitCode =
      exitCode == ERROR_SERVICE_SPECIFIC_ERROR ? static_cast<DWORD>(service.result) : 0;
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

// Into the system's event log: the agent's own may be what could not be opened, or trusted.
void TellFailure(const char* text) {
  std::fprintf(stderr, "zelagent: %s\n", text);
  const HANDLE source = RegisterEventSourceW(nullptr, kServiceName);
  if (!source) return;
  const ZelString message(text);
  const wchar_t* strings[] = {message.GetTCHAR()};
  ReportEventW(source, EVENTLOG_ERROR_TYPE, 0, 1, nullptr, 1, 0, strings, nullptr);
  DeregisterEventSource(source);
}

void WINAPI ServiceMain(DWORD, wchar_t**) {
  service.handle = RegisterServiceCtrlHandlerExW(kServiceName, OnControl, nullptr);
  if (!service.handle) return;
  Report(SERVICE_START_PENDING);
  try {
    service.result = (*service.run)([] { Report(SERVICE_RUNNING); });
  } catch (const UnsafeInstallation& failure) {
    service.result = kUnsafeInstallationStatus;
    TellFailure(failure.what());
  } catch (const std::exception& failure) {
    TellFailure(failure.what());
  }
  Report(SERVICE_STOPPED, service.result == 0 ? NO_ERROR : ERROR_SERVICE_SPECIFIC_ERROR);
}

SERVICE_STATUS_PROCESS StatusOf(SC_HANDLE handle) {
  SERVICE_STATUS_PROCESS status{};
  DWORD size = 0;
  if (!QueryServiceStatusEx(handle, SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status),
                            sizeof status, &size)) {
    Fail("ask for the state of the service", GetLastError());
  }
  return status;
}

/// The service's state, once it is none of those that pass or the checks are used up.
SERVICE_STATUS_PROCESS SettledStatus(SC_HANDLE handle, int checks) {
  SERVICE_STATUS_PROCESS status = StatusOf(handle);
  const auto isPassing = [&] {
    return status.dwCurrentState == SERVICE_START_PENDING ||
           status.dwCurrentState == SERVICE_STOP_PENDING;
  };
  for (int i = 0; i < checks && isPassing(); ++i) {
    Sleep(kCheckMs);
    status = StatusOf(handle);
  }
  return status;
}

// A process that is still on its way out after its service has stopped keeps its files open.
void WaitForEndOf(HANDLE process) {
  if (!process) return;
  const DWORD waited = WaitForSingleObject(process, kProcessEndMs);
  CloseHandle(process);
  if (waited != WAIT_OBJECT_0) Fail("wait for the end of the service", WAIT_TIMEOUT);
}

void StopAndWait(SC_HANDLE handle) {
  const SERVICE_STATUS_PROCESS before = SettledStatus(handle, kStartChecks);
  if (before.dwCurrentState == SERVICE_STOPPED) return;
  const HANDLE process = OpenProcess(SYNCHRONIZE, FALSE, before.dwProcessId);
  SERVICE_STATUS status{};
  const bool isAsked = ControlService(handle, SERVICE_CONTROL_STOP, &status);
  const DWORD error = isAsked ? NO_ERROR : GetLastError();
  if (!isAsked && error != ERROR_SERVICE_NOT_ACTIVE) {
    if (process) CloseHandle(process);
    Fail("stop the service", error);
  }
  const DWORD state = SettledStatus(handle, kStopChecks).dwCurrentState;
  WaitForEndOf(process);
  if (state != SERVICE_STOPPED) Fail("stop the service", ERROR_SERVICE_REQUEST_TIMEOUT);
}

// The service runs without these, so what fails is only said.
void DescribeService(SC_HANDLE handle) {
  std::wstring text = kDescription;
  SERVICE_DESCRIPTIONW description{text.data()};
  if (!ChangeServiceConfig2W(handle, SERVICE_CONFIG_DESCRIPTION, &description))
    std::fprintf(stderr, "zelagent: warning: the service has no description\n");

  // After a crash, not after a stop with an error: that has said why, and would say it again.
  SC_ACTION actions[] = {
      {SC_ACTION_RESTART, 5000}, {SC_ACTION_RESTART, 5000}, {SC_ACTION_RESTART, 60000}};
  SERVICE_FAILURE_ACTIONSW recovery{};
  recovery.dwResetPeriod = 24 * 60 * 60;
  recovery.cActions = static_cast<DWORD>(std::size(actions));
  recovery.lpsaActions = actions;
  if (!ChangeServiceConfig2W(handle, SERVICE_CONFIG_FAILURE_ACTIONS, &recovery))
    std::fprintf(stderr, "zelagent: warning: the service will not be restarted after a crash\n");
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
  DescribeService(installed.get());
}

void RemoveService() {
  const ServiceHandle manager = OpenManager(SC_MANAGER_CONNECT);
  const ServiceHandle installed(
      OpenServiceW(manager.get(), kServiceName, DELETE | SERVICE_STOP | SERVICE_QUERY_STATUS));
  if (!installed) Fail("open the service", GetLastError());
  StopAndWait(installed.get());
  if (!DeleteService(installed.get())) Fail("remove the service", GetLastError());
}

void StartInstalledService() {
  const ServiceHandle manager = OpenManager(SC_MANAGER_CONNECT);
  const ServiceHandle installed(
      OpenServiceW(manager.get(), kServiceName, SERVICE_START | SERVICE_QUERY_STATUS));
  if (!installed) Fail("open the service", GetLastError());
  if (!::StartServiceW(installed.get(), 0, nullptr) &&
      GetLastError() != ERROR_SERVICE_ALREADY_RUNNING) {
    Fail("start the service", GetLastError());
  }
  const SERVICE_STATUS_PROCESS status = SettledStatus(installed.get(), kStartChecks);
  if (status.dwCurrentState == SERVICE_RUNNING) return;
  if (status.dwServiceSpecificExitCode == kUnsafeInstallationStatus) {
    throw std::runtime_error(
        "the service does not start because ordinary users could take it over; the system's event "
        "log names what they could change");
  }
  throw std::runtime_error(
      "the service has ended at its start; the system's event log or its own tells why");
}

void StopInstalledService(const std::filesystem::path& programsOf) {
  const ServiceHandle manager = OpenManager(SC_MANAGER_CONNECT);
  const ServiceHandle installed(
      OpenServiceW(manager.get(), kServiceName, SERVICE_STOP | SERVICE_QUERY_STATUS));
  const DWORD error = installed ? NO_ERROR : GetLastError();
  if (!installed && error != ERROR_SERVICE_DOES_NOT_EXIST) Fail("open the service", error);
  if (installed) StopAndWait(installed.get());
  if (!programsOf.empty()) EndProgramsOf(programsOf);
}

int RunAsService(const std::function<int(const std::function<void()>&)>& run) {
  service.run = &run;
  wchar_t name[] = L"zelagent";
  const SERVICE_TABLE_ENTRYW table[] = {{name, ServiceMain}, {nullptr, nullptr}};
  if (!StartServiceCtrlDispatcherW(table))
    Fail("run as a service (the service manager did not start this program)", GetLastError());
  return service.result;
}
