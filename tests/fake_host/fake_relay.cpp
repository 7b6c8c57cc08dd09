// host/libZel: archives and the HTTP client.

#include <string>

#include "tests/fake_host/ask.h"
#include "tests/fake_host/transcript.h"

struct GenericArchive::Implementation {};
struct HttpClient::Implementation {};

namespace {

int AskForWork(const std::string& function, const std::string& arguments) {
  return static_cast<int>(AskAndWork(function, arguments, -1).value);
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

GenericArchive::GenericArchive(const ZelString& path, enum_ArchiveKind kind) {
  Host().Note("GenericArchive(" + List(Quote(path), std::to_string(kind)) + ")");
  Host().Hold();
}

GenericArchive::~GenericArchive() {
  Host().NoteRelease("~GenericArchive");
}

uint32_t GenericArchive::GetFileCount() {
  return Ask32("GenericArchive::GetFileCount");
}

ZelString GenericArchive::GetEntryPath(uint32_t index) {
  return AskText("GenericArchive::GetEntryPath", std::to_string(index));
}

int GenericArchive::ExtractEntry(uint32_t index, const ZelString& target) {
  return AskForWork("GenericArchive::ExtractEntry", List(std::to_string(index), Quote(target)));
}

int GenericArchive::AddDirectory(const ZelString& directory, int recursive, int flags,
                                 const ZelString& prefix, const ZelString& pattern, int level,
                                 ProgressCallback progress) {
  return AskForWork(
      "GenericArchive::AddDirectory",
      List(Quote(directory), std::to_string(recursive), std::to_string(flags), Quote(prefix),
           Quote(pattern), std::to_string(level), progress ? "callback" : "null"));
}

HttpClient::HttpClient(uint32_t connectTimeoutMs, uint32_t stallTimeoutMs) {
  Host().Note("HttpClient(" + List(AllBits(connectTimeoutMs), AllBits(stallTimeoutMs)) + ")");
  Host().Hold();
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
  return AskForWork("HttpClient::SendAndRecv",
                    List(Quote(agent), Quote(host), DescribeRequest(request),
                         "{" + std::to_string(response.GetStatus()) + "}", std::to_string(port),
                         std::to_string(checksStatus), Pointer(socket)));
}
