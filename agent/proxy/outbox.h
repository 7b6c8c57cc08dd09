#pragma once

#include <condition_variable>
#include <deque>
#include <mutex>

#include "agent/proxy_protocol/channel.h"
#include "agent/proxy_protocol/message.h"

/// The replies of one connection on their way. Whoever has one leaves it here and goes on; a thread
/// of the connection's own writes them, one after the other.
class Outbox {
 public:
  /// From any thread. Dropped when the outbox was closed.
  void Post(proxy_protocol::Message reply);
  /// Waits until few replies are waiting, so that who sends requests without reading replies does
  /// not fill the memory. False when no more can be sent.
  bool WaitForRoom();

  /// What is here is still sent, nothing more is taken.
  void Finish();
  /// Nothing more is sent.
  void Close();

  /// Sends what comes until `Finish` or `Close`, or until a reply could not be sent within
  /// `messageTime`; then the channel is aborted.
  void Run(proxy_protocol::Channel& channel, std::chrono::milliseconds messageTime);

 private:
  bool SendNext(proxy_protocol::Channel& channel, std::chrono::milliseconds messageTime);

  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<proxy_protocol::Message> waiting_;
  bool isFinished_ = false;
  bool isClosed_ = false;
};
