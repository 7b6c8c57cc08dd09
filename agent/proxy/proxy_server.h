#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <thread>

#include "agent/proxy_protocol/channel.h"
#include "agent/proxy_protocol/message.h"

struct ProxyLimits {
  size_t connections = 32;
  /// How long a connection may say nothing.
  std::chrono::milliseconds idle = std::chrono::hours(1);
  /// From a message's first byte to its last, either way.
  std::chrono::milliseconds message = std::chrono::seconds(10);
};

/// Answers the requests that come over a listener, each connection on a thread of its own. One too
/// many is told so and closed; so is one that sends what is no request.
class ProxyServer {
 public:
  /// Answers one request. Several threads call it at once; an exception becomes a failure.
  using Handler = std::function<proxy_protocol::Message(const proxy_protocol::Message& request)>;
  /// Takes lines for the person who runs the program, from the thread in `Run`.
  using Log = std::function<void(const std::string& line)>;

  /// `stop` is the listener's: what raises it makes `Run` return. `Run` raises it when its listener
  /// has lost the pipe.
  ProxyServer(std::unique_ptr<proxy_protocol::Listener> listener,
              std::shared_ptr<proxy_protocol::StopSignal> stop, Handler handler, Log log,
              const ProxyLimits& limits = {});
  ~ProxyServer();
  ProxyServer(const ProxyServer&) = delete;
  ProxyServer& operator=(const ProxyServer&) = delete;

  /// Serves until the stop, or until the listener has lost its pipe: then nobody can come any more,
  /// as at the end of the session. Then all connections are closed. Once.
  void Run();

 private:
  struct Connection {
    std::unique_ptr<proxy_protocol::Channel> channel;
    std::atomic<bool> hasEnded = false;
    std::thread thread;
  };

  /// False when the stop was raised.
  bool ServeNext();
  void Take(std::unique_ptr<proxy_protocol::Channel> channel);
  void Serve(proxy_protocol::Channel& channel) const;
  proxy_protocol::Message Answer(const proxy_protocol::Message& request) const;
  void EndConnection(proxy_protocol::Channel& channel, const std::string& why) const;
  void ForgetEnded();

  const std::unique_ptr<proxy_protocol::Listener> listener_;
  const std::shared_ptr<proxy_protocol::StopSignal> stop_;
  const Handler handler_;
  const Log log_;
  const ProxyLimits limits_;
  std::list<Connection> connections_;
};
