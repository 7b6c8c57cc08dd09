// host/libZel: programs, processes, the user-session proxy and the system's version.

#include <string>
#include <utility>

#include "tests/fake_host/fake_host.h"
#include "tests/fake_host/fake_proxy_client.h"
#include "tests/fake_host/transcript.h"

struct ProcessAccess::Sample {};

std::string DescribeClient(const XmlProxyClient* client) {
  if (!client) return "null";
  const XmlProxyClient::Connection* const connection = client->GetConnection();
  return connection ? "client of " + Quote(connection->pipeName) : "unconnected client";
}

int ExecRedirect(const ZelString& commandLine, bool& failed, XmlProxyClient* proxy,
                 const ZelString& proxyPipe, const ZelString& reserved1, const ZelString& reserved2,
                 unsigned long reserved3, bool reserved4, bool inUserSession, void* reserved5,
                 bool reserved6, int* exitCode) {
  const std::string arguments =
      List(Quote(commandLine), Flag(failed), DescribeClient(proxy), Quote(proxyPipe),
           Quote(reserved1), Quote(reserved2), std::to_string(reserved3), Flag(reserved4),
           Flag(inUserSession), Pointer(reserved5), Flag(reserved6), Pointer(exitCode));
  const FakeHost::ScriptedAnswer answer = FakeHost::Current().Ask("ExecRedirect", arguments);
  if (answer.meanwhile) answer.meanwhile();
  if (answer.flag) failed = true;
  return static_cast<int>(answer.value);
}

XmlProxyClient::XmlProxyClient() {
  FakeHost::Current().Note("XmlProxyClient()");
}

XmlProxyClient::~XmlProxyClient() {
  FakeHost::Current().NoteRelease("~XmlProxyClient");
}

bool XmlProxyClient::Initialise(const ZelString& pipeName, uint32_t timeoutMs, int sessionType) {
  const std::string arguments =
      List(Quote(pipeName), std::to_string(timeoutMs), std::to_string(sessionType));
  if (!FakeHost::Current().Ask("XmlProxyClient::Initialise", arguments).value) return false;
  connection_ = std::make_unique<Connection>(Connection{pipeName});
  return true;
}

ProcessAccess::ProcessAccess() : access_(PROC_ACCESS_ALL_AVAILABLE) {
  FakeHost::Current().Note("ProcessAccess()");
}

ProcessAccess::ProcessAccess(int access) : access_(access) {
  FakeHost::Current().Note("ProcessAccess(" + std::to_string(access) + ")");
}

ProcessAccess::~ProcessAccess() {
  FakeHost::Current().NoteRelease("~ProcessAccess");
}

void ProcessAccess::Refresh() {
  FakeHost::Current().Note("ProcessAccess::Refresh()");
}

void ProcessAccess::GetProcessList(std::vector<ProcessInfo>& list) const {
  list = FakeHost::Current().Ask("ProcessAccess::GetProcessList", "").processes;
}

int ProcessAccess::TerminateProcessByID(uint32_t id) {
  return static_cast<int>(
      FakeHost::Current().Ask("ProcessAccess::TerminateProcessByID", std::to_string(id)).value);
}

uint32_t OSVersion::GetMajorVersion() {
  return static_cast<uint32_t>(FakeHost::Current().Ask("OSVersion::GetMajorVersion", "").value);
}

ZelString OSVersion::GetFullVersion() {
  return FakeHost::Current().Ask("OSVersion::GetFullVersion", "").text;
}
