#pragma once

#include <atomic>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <thread>

#include "agent/proxy/caller.h"
#include "agent/proxy/proxy_limits.h"
#include "agent/proxy_protocol/channel.h"

/// Serves the connections that come over a listener, each with a caller and threads of its own. One
/// too many is told so and closed; so is one that sends what is no request.
class ProxyServer {
 public:
  /// Takes lines for the person who runs the program, from the thread in `Run`.
  using Log = std::function<void(const std::string& line)>;

  /// `stop` is the listener's: what raises it makes `Run` return. `Run` raises it when its listener
  /// has lost the pipe.
  ProxyServer(std::unique_ptr<proxy_protocol::Listener> listener,
              std::shared_ptr<proxy_protocol::StopSignal> stop, CallerFactory makeCaller, Log log,
              const ProxyLimits& limits = {});
  ~ProxyServer();
  ProxyServer(const ProxyServer&) = delete;
  ProxyServer& operator=(const ProxyServer&) = delete;

  /// Serves until the stop, or until the listener has lost its pipe: then nobody can come any more,
  /// as at the end of the session. Then all connections are closed and their callers gone. Once.
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
  void ForgetEnded();

  const std::unique_ptr<proxy_protocol::Listener> listener_;
  const std::shared_ptr<proxy_protocol::StopSignal> stop_;
  const CallerFactory makeCaller_;
  const Log log_;
  const ProxyLimits limits_;
  std::list<Connection> connections_;
};
