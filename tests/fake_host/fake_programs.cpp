// host/libZel: programs, processes, their environment, the user-session proxy and the system's
// version.

#include <string>
#include <utility>

#include "tests/fake_host/ask.h"
#include "tests/fake_host/fake_proxy_client.h"
#include "tests/fake_host/transcript.h"

struct ProcessAccess::Sample {};

std::string DescribeClient(const XmlProxyClient* client) {
  if (!client) return "null";
  const XmlProxyClient::Connection* const connection = client->GetConnection();
  return connection ? "client of " + Quote(connection->pipeName) : "unconnected client";
}

void SetEnvVariable(const TCHAR* name, const TCHAR* value) {
  Host().Note("SetEnvVariable(" + List(Quote(ZelString(name)), Quote(ZelString(value))) + ")");
}

int ExecRedirect(const ZelString& commandLine, bool& failed, XmlProxyClient* proxy,
                 const ZelString& proxyPipe, const ZelString& reserved1, const ZelString& reserved2,
                 unsigned long reserved3, bool reserved4, bool inUserSession, void* reserved5,
                 bool reserved6, int* exitCode) {
  const std::string arguments =
      List(Quote(commandLine), Flag(failed), DescribeClient(proxy), Quote(proxyPipe),
           Quote(reserved1), Quote(reserved2), std::to_string(reserved3), Flag(reserved4),
           Flag(inUserSession), Pointer(reserved5), Flag(reserved6), Pointer(exitCode));
  const FakeHost::ScriptedAnswer answer = AskAndWork("ExecRedirect", arguments);
  if (answer.flag) failed = true;
  return static_cast<int>(answer.value);
}

XmlProxyClient::XmlProxyClient() {
  Host().Note("XmlProxyClient()");
  Host().Hold();
}

XmlProxyClient::~XmlProxyClient() {
  Host().NoteRelease("~XmlProxyClient");
}

bool XmlProxyClient::Initialise(const ZelString& pipeName, uint32_t timeoutMs, int sessionType) {
  const std::string arguments =
      List(Quote(pipeName), std::to_string(timeoutMs), std::to_string(sessionType));
  if (!Ask("XmlProxyClient::Initialise", arguments)) return false;
  connection_ = std::make_unique<Connection>(Connection{pipeName});
  return true;
}

ProcessAccess::ProcessAccess() : access_(PROC_ACCESS_ALL_AVAILABLE) {
  Host().Note("ProcessAccess()");
  Host().Hold();
}

ProcessAccess::ProcessAccess(int access) : access_(access) {
  Host().Note("ProcessAccess(" + std::to_string(access) + ")");
  Host().Hold();
}

ProcessAccess::~ProcessAccess() {
  Host().NoteRelease("~ProcessAccess");
}

void ProcessAccess::Refresh() {
  Host().Note("ProcessAccess::Refresh()");
}

void ProcessAccess::GetProcessList(std::vector<ProcessInfo>& list) const {
  list = Host().Ask("ProcessAccess::GetProcessList", "").processes;
}

int ProcessAccess::TerminateProcessByID(uint32_t id) {
  return AskInt("ProcessAccess::TerminateProcessByID", std::to_string(id));
}

uint32_t OSVersion::GetMajorVersion() {
  return Ask32("OSVersion::GetMajorVersion");
}

ZelString OSVersion::GetFullVersion() {
  return AskText("OSVersion::GetFullVersion");
}
