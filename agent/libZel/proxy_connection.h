#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "agent/proxy_protocol/channel.h"
#include "agent/proxy_protocol/message.h"
#include "libZel/proxy_client.h"

/// How long the proxy may take to answer what no person has to: a desktop is locked when the screen
/// is covered, after some seconds. A new connection and what is asked over it take this long
/// together.
constexpr uint32_t kProxyTimeoutMs = 10000;

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
  /// late reply is taken for that of another request. Fails at once when the agent stops.
  Answer Ask(const std::string& request, std::vector<proxy_protocol::Field> fields);
  Answer Ask(const std::string& request, std::vector<proxy_protocol::Field> fields,
             proxy_protocol::Deadline deadline);

  /// Whether a question has remained without an answer, or none can have one any more.
  bool IsBroken() const { return isBroken_; }
  /// From now on the connection, also a broken one, ends no sooner than this object or the proxy:
  /// what the proxy keeps for it stays.
  void HoldOn() { holdsOn_ = true; }

  /// What the proxy said of its session when the connection was opened; without fields until then.
  const proxy_protocol::Message& Session() const { return session_; }
  void SetSession(proxy_protocol::Message session) { session_ = std::move(session); }
  /// Which process answers, told apart from those before and after it.
  std::string Proxy() const;

 private:
  Answer Exchange(proxy_protocol::Channel& channel, const std::string& request,
                  std::vector<proxy_protocol::Field> fields, proxy_protocol::Deadline deadline);

  std::unique_ptr<proxy_protocol::Channel> channel_;
  const uint32_t timeoutMs_;
  uint32_t lastId_ = 0;
  bool isBroken_ = false;
  bool holdsOn_ = false;
  proxy_protocol::Message session_;
};

/// Connects to the proxy that listens at `pipe` and has it answer a first question. Null, with the
/// reason in the log, when that does not succeed within `timeoutMs`, which then is the time for
/// each question. What waits for the connection returns when `stop` is raised, which without one is
/// the signal of `EndProxyWaits`; after that there are no connections.
std::unique_ptr<XmlProxyClient::Connection> OpenProxyConnection(
    const ZelString& pipe, uint32_t timeoutMs,
    std::shared_ptr<proxy_protocol::StopSignal> stop = nullptr);

/// What the message says in a field; empty where it lacks that.
std::string FieldOf(const proxy_protocol::Message& message, const char* field);

/// Why a request did not succeed, for the log; empty when it did.
std::string WhyFailed(const XmlProxyClient::Connection::Answer& answer);
