#include "agent/proxy/connection.h"

#include <exception>
#include <string>
#include <thread>
#include <utility>

#include "agent/proxy/outbox.h"
#include "agent/proxy_protocol/frame.h"

using namespace proxy_protocol;

namespace {

// For a word of farewell to who may not be listening.
constexpr std::chrono::milliseconds kFarewell{100};

Message FarewellOf(const std::string& why) {
  return {Message::Kind::kReply, kConnection, 0, kFailed, {{kReason, why}}};
}

// One that owns something may be silent for as long as it likes.
Received ReceiveRequest(Channel& channel, const Caller& caller, const ProxyLimits& limits) {
  for (;;) {
    Received received = ReceiveNext(channel, After(limits.idle), limits.message);
    const bool wasSilent = received.result.status == Result::Status::kTooLate && !received.hasBegun;
    if (!wasSilent || !caller.IsBusy()) return received;
  }
}

void Answer(Caller& caller, const Message& request, const std::shared_ptr<Outbox>& outbox) {
  try {
    caller.Answer(request, [outbox](Message reply) { outbox->Post(std::move(reply)); });
  } catch (const std::exception& error) {
    outbox->Post(FailureOf(request, error.what()));
  }
}

// Returns when there will be no more requests, with the reason to tell the other end; empty for one
// that has gone or dawdles, who is not told.
std::string AnswerAll(Channel& channel, Caller& caller, const std::shared_ptr<Outbox>& outbox,
                      const ProxyLimits& limits) {
  while (outbox->WaitForRoom()) {
    const Received received = ReceiveRequest(channel, caller, limits);
    if (!received.result) {
      const bool isNonsense = received.result.status == Result::Status::kFailed;
      return isNonsense ? received.result.reason : "";
    }
    if (received.message.kind != Message::Kind::kRequest)
      return "a reply came instead of a request";
    Answer(caller, received.message, outbox);
  }
  return "";
}

// The thread that writes, for as long as the connection is served.
class Writer {
 public:
  Writer(Channel& channel, std::shared_ptr<Outbox> outbox, std::chrono::milliseconds messageTime)
      : channel_(channel),
        outbox_(std::move(outbox)),
        thread_([this, messageTime] { outbox_->Run(channel_, messageTime); }) {}
  // Without a `Finish` before, what was not sent is lost.
  ~Writer() {
    if (!isFinished_) {
      outbox_->Close();
      channel_.Abort();
    }
    thread_.join();
  }
  Writer(const Writer&) = delete;
  Writer& operator=(const Writer&) = delete;

  void Finish() {
    outbox_->Finish();
    isFinished_ = true;
  }

 private:
  Channel& channel_;
  const std::shared_ptr<Outbox> outbox_;
  bool isFinished_ = false;
  std::thread thread_;
};

}  // namespace

void ServeConnection(Channel& channel, const CallerFactory& makeCaller, const ProxyLimits& limits) {
  // Shared with replies that come when the connection has ended.
  const auto outbox = std::make_shared<Outbox>();
  Writer writer(channel, outbox, limits.message);
  const std::unique_ptr<Caller> caller = makeCaller();
  const std::string farewell = AnswerAll(channel, *caller, outbox, limits);
  if (farewell.empty()) {
    // The caller's dialogs go with it: that they end so is nobody's answer.
    outbox->Close();
    return;
  }
  outbox->Post(FarewellOf(farewell));
  writer.Finish();
}

void TurnAway(Channel& channel, const std::string& why) {
  Send(channel, FarewellOf(why), After(kFarewell));
}
