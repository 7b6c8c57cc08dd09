#pragma once

#include <gmock/gmock.h>

#include <chrono>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "agent/proxy_protocol/frame.h"

/// A connection to a proxy that says what a test tells it to, message by message.
class ProxyCaller {
 public:
  using Message = proxy_protocol::Message;
  using Fields = std::vector<proxy_protocol::Field>;

  explicit ProxyCaller(const std::string& pipe) {
    proxy_protocol::Connected connected = proxy_protocol::Connect(pipe, Soon());
    EXPECT_TRUE(connected.channel) << connected.result.reason;
    channel_ = std::move(connected.channel);
  }

  /// The request's id.
  uint32_t Send(const std::string& name, const Fields& fields = {}) {
    const Message request{Message::Kind::kRequest, name, ++lastId_, 0, fields};
    const proxy_protocol::Result sent = proxy_protocol::Send(*channel_, request, Soon());
    EXPECT_TRUE(sent) << sent.reason;
    return lastId_;
  }
  Message Receive() {
    proxy_protocol::Received received = proxy_protocol::Receive(*channel_, Soon());
    EXPECT_TRUE(received.result) << received.result.reason;
    return std::move(received.message);
  }
  Message Ask(const std::string& name, const Fields& fields = {}) {
    const uint32_t id = Send(name, fields);
    Message reply = Receive();
    EXPECT_EQ(reply.id, id);
    EXPECT_EQ(reply.name, name);
    return reply;
  }
  /// Why the proxy fails to do it; empty when it succeeds.
  std::string WhyNot(const std::string& name, const Fields& fields = {}) {
    const Message reply = Ask(name, fields);
    const std::string reason = TextOf(reply, proxy_protocol::kReason);
    EXPECT_EQ(reply.code == 0, reason.empty());
    return reason;
  }

  /// Makes a dialog with two buttons; its number.
  std::string Create(Fields fields = {{"text", "Well?"}, {"buttons", "2"}}) {
    return TextOf(Ask("dialog-create", fields), "dialog");
  }
  void SendShow(const std::string& dialog) {
    Send("dialog-show", {{"dialog", dialog}, {"wait", "1"}});
  }

  /// Whether the proxy ends the connection.
  bool IsClosed() {
    const auto status = proxy_protocol::Receive(*channel_, Soon()).result.status;
    return status == proxy_protocol::Result::Status::kClosed;
  }
  void HangUp() { channel_.reset(); }
  proxy_protocol::Channel& Channel() { return *channel_; }

  static std::string TextOf(const Message& message, const char* field) {
    const std::string* const text = message.Find(field);
    return text ? *text : "";
  }

 private:
  static proxy_protocol::Deadline Soon() { return proxy_protocol::After(std::chrono::seconds(10)); }

  std::unique_ptr<proxy_protocol::Channel> channel_;
  uint32_t lastId_ = 0;
};
