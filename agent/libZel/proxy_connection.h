#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "agent/proxy_protocol/channel.h"
#include "agent/proxy_protocol/message.h"
#include "libZel/proxy_client.h"

/// An open connection to a proxy: one question at a time.
struct XmlProxyClient::Connection {
 public:
  struct Answer {
    /// Null when no answer came.
    std::unique_ptr<proxy_protocol::Message> reply;
    /// Why not.
    std::string error;
  };

  /// `timeoutMs` is for each question that has no deadline of its own.
  Connection(std::unique_ptr<proxy_protocol::Channel> channel, uint32_t timeoutMs);

  /// Sends the request and waits for its reply. Whatever goes wrong ends the connection, so that no
  /// late reply is taken for that of another request.
  Answer Ask(const std::string& request, std::vector<proxy_protocol::Field> fields);
  Answer Ask(const std::string& request, std::vector<proxy_protocol::Field> fields,
             proxy_protocol::Deadline deadline);

  /// Which process answers, told apart from those before and after it; empty until it is known.
  const std::string& Proxy() const { return proxy_; }
  void SetProxy(const std::string& proxy) { proxy_ = proxy; }

 private:
  Answer Exchange(proxy_protocol::Channel& channel, const std::string& request,
                  std::vector<proxy_protocol::Field> fields, proxy_protocol::Deadline deadline);

  std::unique_ptr<proxy_protocol::Channel> channel_;
  const uint32_t timeoutMs_;
  uint32_t lastId_ = 0;
  std::string proxy_;
};

/// Connects to the proxy that listens at `pipe` and has it answer a first question. Null, with the
/// reason in the log, when that does not succeed within `timeoutMs`, which then is the time for
/// each question. What waits for the connection returns when `stop` is raised, if there is one.
std::unique_ptr<XmlProxyClient::Connection> OpenProxyConnection(
    const ZelString& pipe, uint32_t timeoutMs,
    std::shared_ptr<proxy_protocol::StopSignal> stop = nullptr);

/// Why a request did not succeed, for the log; empty when it did.
std::string WhyFailed(const XmlProxyClient::Connection::Answer& answer);
