#include "actions/relay/agent_transfer.h"

#include <ctime>

#include "module/invocation.h"
#include "module/module.h"

namespace {

constexpr uint32_t kDefaultTimeout = ~0U;
constexpr int kFailsOnStatus = 1;

}  // namespace

void ReadEndpoint(Sender* sender) {
  ZelContainer work;
  InvokeHere("AgentGetIPAddress", &work);
  sender->ipAddress = ReadString(work, "IPAddress");
  work.Clear();

  InvokeHere("HttpProtocolGetParams", &work);
  ZelContainer values;
  work.GetContainer(kValues, &values, kNoIndex);
  uint32_t port = 0;
  values.GetInt32("Port", &port, kNoIndex);
  sender->endpoint.Printf("%S:%u", sender->ipAddress, port);
}

void ReadCredentials(Sender* sender) {
  ZelAgentGetName(sender->name);
  sender->password = sender->name;
  ZelAgentGetHttpPassword(sender->password);
}

ZelString AliasNameAt(int64_t seconds) {
  ZelString name;
  return name.Printf("backup%d", static_cast<int32_t>(seconds));
}

ZelString MakeAliasName() {
  return AliasNameAt(std::time(nullptr));
}

void UseForwardSlashes(ZelString* path) {
  path->ReplaceAll("\\", "/", false);
}

void EndWithSlash(ZelString* path) {
  if (!path->EndsWith("/", true)) *path += "/";
}

HttpFileMessage MakeUpload(const ZelString& path, const ZelString& resource) {
  HttpFileMessage upload;
  upload.SetMethod(kHttpPut);
  upload.SetResourcePath(resource);
  upload.SetTo(path, "");
  return upload;
}

TransferClient::TransferClient(const ZelString& user, const ZelString& password)
    : client_(kDefaultTimeout, kDefaultTimeout) {
  client_.SetDebugContext(ZelAgentGetDebugContext());
  client_.SetAuthentification(user, password);
  if (AgentSecuritySslForceSecCli()) {
    Logger().DetailWithNL("SSL is enabled");
    client_.EnableSsl(AgentSecuritySslCliCtxAcquire());
  }
  if (AgentSecurityPacForceSecCli()) {
    Logger().DetailWithNL("PAC is enabled");
    client_.EnablePac(AgentSecurityPacShrCtxAcquire());
  }
}

int TransferClient::Send(const ZelString* agent, const ZelString& host, HttpFileMessage& upload,
                         uint32_t port) {
  HttpMessage response(0);
  return client_.SendAndRecv(agent, host, upload, response, port, kFailsOnStatus, nullptr);
}
