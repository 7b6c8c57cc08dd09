#include "agent/libZel/proxy_connection.h"

#include <utility>

#include "agent/libZel/proxy_waits.h"
#include "agent/proxy_protocol/frame.h"

using proxy_protocol::After, proxy_protocol::Channel, proxy_protocol::Deadline,
    proxy_protocol::Field, proxy_protocol::Message, proxy_protocol::kConnection,
    proxy_protocol::kReason;

XmlProxyClient::Connection::Connection(std::unique_ptr<Channel> channel, uint32_t timeoutMs)
    : channel_(std::move(channel)), timeoutMs_(timeoutMs) {}

XmlProxyClient::Connection::Answer XmlProxyClient::Connection::Ask(const std::string& request,
                                                                   std::vector<Field> fields) {
  return Ask(request, std::move(fields), After(std::chrono::milliseconds(timeoutMs_)));
}

XmlProxyClient::Connection::Answer XmlProxyClient::Connection::Ask(const std::string& request,
                                                                   std::vector<Field> fields,
                                                                   Deadline deadline) {
  if (isBroken_) return {nullptr, "the connection to the proxy is broken"};
  if (HaveProxyWaitsEnded()) return {nullptr, "the agent is stopping"};
  // Taken away for the time being: it comes back when nothing went wrong, exceptions included.
  isBroken_ = true;
  std::unique_ptr<Channel> channel = std::exchange(channel_, nullptr);
  Answer answer = Exchange(*channel, request, std::move(fields), deadline);
  isBroken_ = !answer.reply;
  if (!isBroken_ || holdsOn_) channel_ = std::move(channel);
  return answer;
}

std::string XmlProxyClient::Connection::Proxy() const {
  return FieldOf(session_, "processId") + "/" + FieldOf(session_, "startedAt");
}

XmlProxyClient::Connection::Answer XmlProxyClient::Connection::Exchange(Channel& channel,
                                                                        const std::string& request,
                                                                        std::vector<Field> fields,
                                                                        Deadline deadline) {
  const Message question{Message::Kind::kRequest, request, ++lastId_, 0, std::move(fields)};
  const proxy_protocol::Result sent = Send(channel, question, deadline);
  // Who turns a caller away says so without reading anything.
  if (!sent && sent.status != proxy_protocol::Result::Status::kClosed)
    return {nullptr, sent.reason};

  proxy_protocol::Received received = Receive(channel, deadline);
  if (!received.result) return {nullptr, received.result.reason};
  Message& reply = received.message;
  const bool isReply = reply.kind == Message::Kind::kReply;
  if (isReply && reply.id == 0 && reply.name == kConnection) {
    const std::string* const reason = reply.Find(kReason);
    return {nullptr, "the proxy ended the connection: " + (reason ? *reason : "no reason")};
  }
  if (!isReply || reply.id != question.id || reply.name != question.name)
    return {nullptr, "the proxy answered another question"};
  return {std::make_unique<Message>(std::move(reply)), {}};
}

std::string FieldOf(const Message& message, const char* field) {
  const std::string* const text = message.Find(field);
  return text ? *text : std::string();
}

std::string WhyFailed(const XmlProxyClient::Connection::Answer& answer) {
  if (!answer.reply) return answer.error;
  if (answer.reply->code == 0) return {};
  const std::string* const reason = answer.reply->Find(kReason);
  return reason ? *reason : "the proxy gives no reason";
}
