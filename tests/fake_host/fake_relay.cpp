// host/libZel: archives, texts of whole files and the HTTP client; host/libZelCore: who the agent
// is and how it speaks to others.

#include <string>

#include "tests/fake_host/fake_host.h"
#include "tests/fake_host/transcript.h"

struct GenericArchive::Implementation {};
struct HttpClient::Implementation {};

namespace {

FakeHost& Host() {
  return FakeHost::Current();
}

int64_t Ask(const std::string& function, const std::string& arguments, int64_t failure = 0) {
  return Host().Ask(function, arguments, failure).value;
}

template <typename Object>
Object* AskPointer(const std::string& function) {
  return reinterpret_cast<Object*>(static_cast<uintptr_t>(Ask(function, "")));
}

/// Asks for what takes a while.
int AskAndWork(const std::string& function, const std::string& arguments) {
  const FakeHost::ScriptedAnswer answer = Host().Ask(function, arguments, -1);
  if (answer.meanwhile) answer.meanwhile();
  return static_cast<int>(answer.value);
}

/// The method's number, the resource and, where the body is a file, both paths.
std::string DescribeRequest(const HttpMessage& request) {
  std::string parts = List(std::to_string(request.GetMethod()), Quote(request.GetResourcePath()));
  if (const auto* file = dynamic_cast<const HttpFileMessage*>(&request)) {
    parts = List(parts, Quote(file->GetSendPath()), Quote(file->GetReceivePath()));
  }
  return "{" + parts + "}";
}

}  // namespace

// ---- host/libZel ----

GenericArchive::GenericArchive(const ZelString& path, enum_ArchiveKind kind) {
  Host().Note("GenericArchive(" + List(Quote(path), std::to_string(kind)) + ")");
}

GenericArchive::~GenericArchive() {
  Host().NoteRelease("~GenericArchive");
}

uint32_t GenericArchive::GetFileCount() {
  return static_cast<uint32_t>(Ask("GenericArchive::GetFileCount", ""));
}

ZelString GenericArchive::GetEntryPath(uint32_t index) {
  return Host().Ask("GenericArchive::GetEntryPath", std::to_string(index)).text;
}

int GenericArchive::ExtractEntry(uint32_t index, const ZelString& target) {
  return static_cast<int>(
      Ask("GenericArchive::ExtractEntry", List(std::to_string(index), Quote(target)), -1));
}

int GenericArchive::AddDirectory(const ZelString& directory, int recursive, int flags,
                                 const ZelString& prefix, const ZelString& pattern, int level,
                                 ProgressCallback progress) {
  return AskAndWork(
      "GenericArchive::AddDirectory",
      List(Quote(directory), std::to_string(recursive), std::to_string(flags), Quote(prefix),
           Quote(pattern), std::to_string(level), progress ? "callback" : "null"));
}

HttpClient::HttpClient(uint32_t connectTimeoutMs, uint32_t stallTimeoutMs) {
  Host().Note("HttpClient(" + List(AllBits(connectTimeoutMs), AllBits(stallTimeoutMs)) + ")");
}

HttpClient::~HttpClient() {
  Host().NoteRelease("~HttpClient");
}

void HttpClient::SetDebugContext(ZelDebugContext* context) {
  Host().Note("HttpClient::SetDebugContext(" + Pointer(context) + ")");
}

void HttpClient::SetAuthentification(const ZelString& agentName, const ZelString& password) {
  Host().Note("HttpClient::SetAuthentification(" + List(Quote(agentName), Quote(password)) + ")");
}

void HttpClient::EnableSsl(SslContext* context) {
  Host().Note("HttpClient::EnableSsl(" + Pointer(context) + ")");
}

void HttpClient::EnablePac(PacContext* context) {
  Host().Note("HttpClient::EnablePac(" + Pointer(context) + ")");
}

int HttpClient::SendAndRecv(const ZelString* agent, const ZelString& host, HttpMessage& request,
                            HttpMessage& response, uint32_t port, int checksStatus,
                            NetworkSocket* socket) {
  return AskAndWork("HttpClient::SendAndRecv",
                    List(Quote(agent), Quote(host), DescribeRequest(request),
                         "{" + std::to_string(response.GetStatus()) + "}", std::to_string(port),
                         std::to_string(checksStatus), Pointer(socket)));
}

bool LoadFileToString(const ZelString& path, ZelString* text) {
  const FakeHost::ScriptedAnswer answer = Host().Ask("LoadFileToString", Quote(path));
  if (!answer.value) return false;
  *text = answer.text;
  return true;
}

bool SaveFileFromString(const ZelString& path, const ZelString& text) {
  return Ask("SaveFileFromString", List(Quote(path), Quote(text))) != 0;
}

ZelVector<ZelString> DirListFiles(const ZelString& directory, bool recursive, bool withPath,
                                  bool filesOnly) {
  return Host()
      .Ask("DirListFiles", List(Quote(directory), Flag(recursive), Flag(withPath), Flag(filesOnly)))
      .list;
}

// ---- host/libZelCore ----

void ZelAgentGetName(ZelString& name) {
  name = Host().Ask("ZelAgentGetName", "").text;
}

void ZelAgentGetHttpPassword(ZelString& nameThenPassword) {
  nameThenPassword = Host().Ask("ZelAgentGetHttpPassword", Quote(nameThenPassword)).text;
}

void ZelAgentGetSecurity(ZelString& setting) {
  setting = Host().Ask("ZelAgentGetSecurity", "").text;
}

bool AgentSecuritySslForceSecCli() {
  return Ask("AgentSecuritySslForceSecCli", "") != 0;
}

SslContext* AgentSecuritySslCliCtxAcquire() {
  return AskPointer<SslContext>("AgentSecuritySslCliCtxAcquire");
}

bool AgentSecurityPacForceSecCli() {
  return Ask("AgentSecurityPacForceSecCli", "") != 0;
}

PacContext* AgentSecurityPacShrCtxAcquire() {
  return AskPointer<PacContext>("AgentSecurityPacShrCtxAcquire");
}
