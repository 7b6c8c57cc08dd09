#include "libZel/proxy_client.h"

#include <cstddef>
#include <utility>

#include "agent/libZel/boundary.h"
#include "agent/libZel/proxy_connection.h"
#include "agent/libZel/proxy_waits.h"

using proxy_protocol::After, proxy_protocol::Deadline, proxy_protocol::StopSignal;

namespace {

std::nullptr_t Refuse(const ZelString& pipe, const ZelString& reason) {
  LibraryLog().WarningWithNL("the user-session proxy at \"%S\" cannot be asked: %S", pipe, reason);
  return nullptr;
}

}  // namespace

// "session" is the question that every proxy answers.
std::unique_ptr<XmlProxyClient::Connection> OpenProxyConnection(const ZelString& pipe,
                                                                uint32_t timeoutMs,
                                                                std::shared_ptr<StopSignal> stop) {
  if (pipe.IsEmpty()) return Refuse(pipe, "nobody is logged on, or no proxy runs");
  if (HaveProxyWaitsEnded()) return Refuse(pipe, "the agent is stopping");
  if (!stop) stop = ProxyWaitsEnd();
  const Deadline deadline = After(std::chrono::milliseconds(timeoutMs));
  auto connected = proxy_protocol::Connect(std::string(pipe.Utf8()), deadline, std::move(stop));
  if (!connected.channel) return Refuse(pipe, connected.result.reason);

  auto opened =
      std::make_unique<XmlProxyClient::Connection>(std::move(connected.channel), timeoutMs);
  const auto answer = opened->Ask("session", {}, deadline);
  if (!answer.reply) return Refuse(pipe, answer.error);
  if (answer.reply->code != 0) return Refuse(pipe, "it does not tell its session");
  opened->SetSession(std::move(*answer.reply));
  return opened;
}

XmlProxyClient::XmlProxyClient() = default;

XmlProxyClient::~XmlProxyClient() = default;

bool XmlProxyClient::Initialise(const ZelString& pipeName, uint32_t timeoutMs, int sessionType) {
  return Guarded("connecting to the user-session proxy", false, [&] {
    connection_.reset();
    if (sessionType == kUserSession) {
      connection_ = OpenProxyConnection(pipeName, timeoutMs);
    } else {
      Refuse(pipeName, "there is no such type of session");
    }
    return connection_ != nullptr;
  });
}
