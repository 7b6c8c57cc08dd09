#pragma once

#include <functional>
#include <memory>

#include "agent/proxy_protocol/message.h"

/// The proxy's side of one connection: answers its requests and owns what it asked for, which goes
/// with this object.
class Caller {
 public:
  virtual ~Caller() = default;

  /// Takes the reply to a request, from any thread, and never waits for the other end. What comes
  /// when the connection has ended is dropped.
  using Reply = std::function<void(proxy_protocol::Message reply)>;

  /// Answers a request by one call of `reply`, at once or later. The next request is taken when
  /// this returns. An exception becomes a failure; `reply` is not called then. Threads: one at a
  /// time.
  virtual void Answer(const proxy_protocol::Message& request, Reply reply) = 0;
  /// Whether the connection has reason to stay open without a word.
  virtual bool IsBusy() const { return false; }

 protected:
  Caller() = default;
  Caller(const Caller&) = delete;
  Caller& operator=(const Caller&) = delete;
};

/// Makes the caller of a new connection. Several threads ask at once.
using CallerFactory = std::function<std::unique_ptr<Caller>()>;
