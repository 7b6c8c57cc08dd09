#include "agent/libZel/proxy_session.h"

#include <utility>

#include "agent/libZel/boundary.h"
#include "agent/libZel/proxy_connection.h"

using proxy_protocol::Field;
using proxy_protocol::Message;

namespace {

const char* const kNotOpen = "the connection to the proxy is not open";

struct Asked {
  /// Null when no answer came; then, and when the answer is no success, the outcome says why.
  std::unique_ptr<Message> reply;
  Outcome outcome;
};

Asked Ask(XmlProxyClient& client, const std::string& request, std::vector<Field> fields) {
  XmlProxyClient::Connection* const connection = client.GetConnection();
  if (!connection) return {nullptr, FailedBecause(kNotOpen)};
  XmlProxyClient::Connection::Answer answer = connection->Ask(request, std::move(fields));
  if (!answer.reply) return {nullptr, FailedBecause(answer.error)};

  Outcome outcome;
  if (answer.reply->code != 0) outcome = FailedBecause(WhyFailed(answer), answer.reply->code);
  return {std::move(answer.reply), std::move(outcome)};
}

const char* const kAsking = "asking the user-session proxy";

}  // namespace

SessionInfo SessionOf(const XmlProxyClient& client) {
  SessionInfo failed;
  failed.outcome.code = -1;
  return Guarded(kAsking, failed, [&] {
    SessionInfo session;
    const XmlProxyClient::Connection* const connection = client.GetConnection();
    if (!connection || connection->IsBroken()) {
      session.outcome = FailedBecause(kNotOpen);
      return session;
    }
    const Message& told = connection->Session();
    session.userName = ZelString(FieldOf(told, "userName"));
    session.sessionId = ZelString(FieldOf(told, "sessionId"));
    session.platform = ZelString(FieldOf(told, "platform"));
    session.processId = ZelString(FieldOf(told, "processId")).ToUL(10);
    session.startedAt = ZelString(FieldOf(told, "startedAt")).ToInt64(10);
    session.language = ZelString(FieldOf(told, "language"));
    return session;
  });
}

Outcome RunInSession(XmlProxyClient& client, const ZelString& commandLine) {
  return AskToRun(client, commandLine).outcome;
}

ProxyOutcome AskToRun(XmlProxyClient& client, const ZelString& commandLine) {
  return Guarded(kAsking, ProxyOutcome{false, {-1, {}}}, [&] {
    Asked asked = Ask(client, "run", {{"commandLine", std::string(commandLine.Utf8())}});
    return ProxyOutcome{asked.reply != nullptr, std::move(asked.outcome)};
  });
}
