#include "agent/proxy/outbox.h"

#include <exception>
#include <utility>

#include "agent/proxy_protocol/frame.h"

using namespace proxy_protocol;

namespace {

constexpr size_t kFew = 16;

// A reply that no message can carry is a failure, and not the connection's end.
bool SendOrExplain(Channel& channel, const Message& reply, Deadline deadline) {
  if (Send(channel, reply, deadline)) return true;
  const bool isTooLong = FormatMessage(reply).size() > kMaxDocumentBytes;
  return isTooLong && Send(channel, FailureOf(reply, "the reply is too long"), deadline);
}

}  // namespace

void Outbox::Post(Message reply) {
  {
    const std::lock_guard lock(mutex_);
    if (isFinished_ || isClosed_) return;
    waiting_.push_back(std::move(reply));
  }
  changed_.notify_all();
}

bool Outbox::WaitForRoom() {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [this] { return isClosed_ || waiting_.size() < kFew; });
  return !isClosed_;
}

void Outbox::Finish() {
  {
    const std::lock_guard lock(mutex_);
    isFinished_ = true;
  }
  changed_.notify_all();
}

void Outbox::Close() {
  {
    const std::lock_guard lock(mutex_);
    isClosed_ = true;
    waiting_.clear();
  }
  changed_.notify_all();
}

void Outbox::Run(Channel& channel, std::chrono::milliseconds messageTime) {
  try {
    while (SendNext(channel, messageTime)) continue;
  } catch (const std::exception&) {
    // Without memory for a reply the connection ends.
    channel.Abort();
  }
  Close();
}

bool Outbox::SendNext(Channel& channel, std::chrono::milliseconds messageTime) {
  Message next;
  {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return isClosed_ || isFinished_ || !waiting_.empty(); });
    if (isClosed_ || waiting_.empty()) return false;
    next = std::move(waiting_.front());
    waiting_.pop_front();
  }
  changed_.notify_all();
  if (SendOrExplain(channel, next, After(messageTime))) return true;
  channel.Abort();
  return false;
}
