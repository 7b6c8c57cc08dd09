// What a server answers over HTTP, for everything here that asks one: the invocation of an action
// on another agent, zelctl, the check of a web page, files behind URLs. Whatever comes, each of
// them ends with a result or a sentence. The first byte of the input chooses who asks, the rest is
// what the server sends. Redirections lead back to it, for it is everybody's proxy.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

#include "agent/libZel/http_file.h"
#include "agent/libZelCore/remote_invocation.h"
#include "agent/zelctl/agent_client.h"
#include "agent/zelctl/failure.h"
#include "libZel/curl_get.h"
#include "tests/fuzz/require.h"
#include "tests/fuzz/scratch.h"

namespace {

/// Sends the same bytes to everybody who connects to it, and hangs up.
class ReplyServer {
 public:
  ReplyServer() : listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto* const place = reinterpret_cast<sockaddr*>(&address);
    socklen_t length = sizeof address;
    Require(bind(listener_, place, length) == 0 && listen(listener_, 16) == 0);
    Require(getsockname(listener_, place, &length) == 0);
    url_ = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port));
    // Until the process ends.
    std::thread([this] { Serve(); }).detach();
  }

  const std::string& Url() const { return url_; }
  void SetReply(std::string_view reply) {
    const std::lock_guard lock(mutex_);
    reply_ = reply;
  }

 private:
  [[noreturn]] void Serve() {
    for (;;) {
      const int peer = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
      if (peer < 0) continue;
      Answer(peer);
      close(peer);
    }
  }

  // Reads to the end, for what is unread when a connection is closed takes the answer along.
  void Answer(int peer) {
    const timeval patience{0, 200'000};
    setsockopt(peer, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    char bytes[4096];
    if (recv(peer, bytes, sizeof bytes, 0) <= 0) return;
    std::string reply;
    {
      const std::lock_guard lock(mutex_);
      reply = reply_;
    }
    send(peer, reply.data(), reply.size(), MSG_NOSIGNAL);
    shutdown(peer, SHUT_WR);
    while (recv(peer, bytes, sizeof bytes, 0) > 0) continue;
  }

  const int listener_;
  std::string url_;
  std::mutex mutex_;
  std::string reply_;
};

ReplyServer& Server() {
  static auto* const server = new ReplyServer;
  return *server;
}

// Nothing here leaves this machine.
void RouteEverythingToTheServer() {
  for (const char* name : {"http_proxy", "https_proxy", "all_proxy", "HTTPS_PROXY", "ALL_PROXY"})
    setenv(name, Server().Url().c_str(), 1);
  unsetenv("no_proxy");
  unsetenv("NO_PROXY");
}

void InvokeRemotely() {
  Settings settings;
  settings.agentName = "pc-1";
  settings.fleetSecret = "0123456789abcdef";
  const RemoteInvoker invoker(settings);
  ZelContainer parameters;
  parameters.SetString("Path", "a", kNoIndex);
  const ZelContainer before = parameters;
  const RemoteResult result = invoker.Invoke(Server().Url(), "Any", &parameters, 2000);
  if (result.error.empty()) return;
  Require(parameters == before && result.code != 0);
}

void AskAsZelctl() {
  AgentClient client({Server().Url(), "ann", "secret", ""});
  try {
    const ActionReply reply = client.Call("Any", "{}");
    Require(!reply.body.empty());
  } catch (const Failure& failure) {
    Require(failure.what()[0] != '\0' && failure.Status() != ExitStatus::kSuccess);
  }
}

void CheckPage() {
  long long received = -1;
  const int fetched =
      CurlAdvancedGet(ZelString(Server().Url()), "ann", "secret", ZelString(Server().Url()), "", "",
                      0, 2, received, true, nullptr, nullptr);
  Require((fetched == 0 || fetched == 1) && received >= 0);
}

void FetchFile(size_t replyBytes) {
  static const Scratch scratch;
  scratch.Clear();
  const ZelString url(Server().Url() + "/file");
  const http_file::Properties properties = http_file::GetProperties(url);
  const bool isUnknown = properties.presence == http_file::Properties::Presence::kUnknown;
  Require(!isUnknown || !properties.reason.IsEmpty());

  file_system::PendingFile file;
  Require(file.Create(scratch / "file") == 0);
  Outcome outcome = http_file::Download(url, &file);
  if (outcome) outcome = OutcomeOf(file.Commit(false));
  Require(std::filesystem::exists(scratch / "file") == static_cast<bool>(outcome));
  if (!outcome) Require(!outcome.reason.IsEmpty() && std::filesystem::is_empty(scratch.Path()));
  // Nothing asks for compression: a file is no longer than what was sent.
  if (outcome) Require(std::filesystem::file_size(scratch / "file") <= replyBytes * 11);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool isRouted = (RouteEverythingToTheServer(), true);
  if (size == 0 || !isRouted) return 0;
  Server().SetReply({reinterpret_cast<const char*>(data) + 1, size - 1});
  switch (data[0] % 4) {
    case 0:
      InvokeRemotely();
      break;
    case 1:
      AskAsZelctl();
      break;
    case 2:
      CheckPage();
      break;
    default:
      FetchFile(size);
      break;
  }
  return 0;
}
