#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <utility>

#include "agent/proxy/proxy_server.h"
#include "agent/proxy/requests.h"
#include "tests/agent/test_pipe.h"

/// A caller that makes replies with one function.
class HandlerCaller : public Caller {
 public:
  using Handler = std::function<proxy_protocol::Message(const proxy_protocol::Message& request)>;

  explicit HandlerCaller(Handler handler) : handler_(std::move(handler)) {}
  void Answer(const proxy_protocol::Message& request, Reply reply) override {
    reply(handler_(request));
  }

  static CallerFactory Factory(Handler handler) {
    return [handler] { return std::make_unique<HandlerCaller>(handler); };
  }

 private:
  const Handler handler_;
};

/// A proxy in this process, at a place of its own, for the length of a test.
class TestProxy {
 public:
  /// Without a display.
  explicit TestProxy(const ProxyLimits& limits = {}) : TestProxy(nullptr, limits) {}

  /// With the desktop, which lives longer. `lockGrace` is how long it stays locked without a
  /// holder.
  explicit TestProxy(Desktop& desktop, const ProxyLimits& limits = {},
                     std::chrono::milliseconds lockGrace = kLockGrace)
      : TestProxy(&desktop, limits, lockGrace) {}

  TestProxy(HandlerCaller::Handler handler, const ProxyLimits& limits)
      : TestProxy(HandlerCaller::Factory(std::move(handler)), limits) {}

  TestProxy(CallerFactory factory, const ProxyLimits& limits)
      : TestProxy(nullptr, limits, kLockGrace, std::move(factory)) {}

  ~TestProxy() {
    stop_->Raise();
    thread_.join();
  }
  TestProxy(const TestProxy&) = delete;
  TestProxy& operator=(const TestProxy&) = delete;

  const std::string& Pipe() const { return pipe_.Name(); }

 private:
  TestProxy(Desktop* desktop, const ProxyLimits& limits,
            std::chrono::milliseconds lockGrace = kLockGrace, CallerFactory factory = {})
      : session_(
            {"alice", "3", "testing", 42, 1700000000, "de-AT"}, {"Ja", "Nein", "Zu", "Nachricht"},
            desktop, [](const std::string&) {}, lockGrace),
        stop_(std::make_shared<proxy_protocol::StopSignal>()),
        server_(
            proxy_protocol::Listen(pipe_.Name(), stop_), stop_,
            factory ? std::move(factory) : [this] { return MakeCaller(session_); },
            [](const std::string&) {}, limits),
        thread_([this] { server_.Run(); }) {}

  const TestPipe pipe_;
  ProxySession session_;
  const std::shared_ptr<proxy_protocol::StopSignal> stop_;
  ProxyServer server_;
  std::thread thread_;
};
