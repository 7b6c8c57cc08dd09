#include "libZel/proxy_client.h"

#include <utility>

#include "agent/libZel/boundary.h"
#include "agent/libZel/proxy_connection.h"

using namespace proxy_protocol;

namespace {

bool Refuse(const ZelString& pipe, const ZelString& reason) {
  LibraryLog().WarningWithNL("the user-session proxy at \"%S\" cannot be asked: %S", pipe, reason);
  return false;
}

// "session" is the question that every proxy answers.
bool Open(const ZelString& pipe, uint32_t timeoutMs,
          std::unique_ptr<XmlProxyClient::Connection>* connection) {
  if (pipe.IsEmpty()) return Refuse(pipe, "nobody is logged on, or no proxy runs");
  const Deadline deadline = After(std::chrono::milliseconds(timeoutMs));
  Connected connected = Connect(std::string(pipe.Utf8()), deadline);
  if (!connected.channel) return Refuse(pipe, connected.result.reason);

  auto opened =
      std::make_unique<XmlProxyClient::Connection>(std::move(connected.channel), timeoutMs);
  const auto answer = opened->Ask("session", {}, deadline);
  if (!answer.reply) return Refuse(pipe, answer.error);
  if (answer.reply->code != 0) return Refuse(pipe, "it does not tell its session");
  *connection = std::move(opened);
  return true;
}

}  // namespace

XmlProxyClient::XmlProxyClient() = default;

XmlProxyClient::~XmlProxyClient() = default;

bool XmlProxyClient::Initialise(const ZelString& pipeName, uint32_t timeoutMs, int sessionType) {
  return Guarded("connecting to the user-session proxy", false, [&] {
    connection_.reset();
    if (sessionType != kUserSession) return Refuse(pipeName, "there is no such type of session");
    return Open(pipeName, timeoutMs, &connection_);
  });
}
