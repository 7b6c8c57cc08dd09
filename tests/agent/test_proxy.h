#pragma once

#include <memory>
#include <string>
#include <thread>
#include <utility>

#include "agent/proxy/proxy_server.h"
#include "agent/proxy/requests.h"
#include "tests/agent/test_pipe.h"

/// A proxy in this process, at a place of its own, for the length of a test.
class TestProxy {
 public:
  explicit TestProxy(const ProxyLimits& limits = {}) : TestProxy(Answerer(), limits) {}

  TestProxy(ProxyServer::Handler handler, const ProxyLimits& limits)
      : stop_(std::make_shared<proxy_protocol::StopSignal>()),
        server_(
            proxy_protocol::Listen(pipe_.Name(), stop_), stop_, std::move(handler),
            [](const std::string&) {}, limits),
        thread_([this] { server_.Run(); }) {}

  ~TestProxy() {
    stop_->Raise();
    thread_.join();
  }
  TestProxy(const TestProxy&) = delete;
  TestProxy& operator=(const TestProxy&) = delete;

  const std::string& Pipe() const { return pipe_.Name(); }

 private:
  static ProxyServer::Handler Answerer() {
    return [](const proxy_protocol::Message& request) {
      return AnswerRequest(request, {"alice", "3", "testing", 42, 1700000000});
    };
  }

  const TestPipe pipe_;
  const std::shared_ptr<proxy_protocol::StopSignal> stop_;
  ProxyServer server_;
  std::thread thread_;
};
