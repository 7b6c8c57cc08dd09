#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "agent/proxy_protocol/channel.h"
#include "agent/proxy_protocol/message.h"

// Messages on their way: four bytes with the document's length, the highest first, and the
// document.
namespace proxy_protocol {

constexpr size_t kHeaderBytes = 4;

/// The length that a frame's header tells; none when no message has it.
std::optional<uint32_t> DocumentLength(const unsigned char (&header)[kHeaderBytes]);

/// The frame of a document of up to `kMaxDocumentBytes`.
std::string FrameOf(const std::string& document);

/// Sends a message. kFailed when it is too long.
Result Send(Channel& channel, const Message& message, Deadline deadline);

struct Received {
  Message message;
  Result result;
  /// Whether anything of a message arrived.
  bool hasBegun = false;
};

/// Receives a message before `deadline`. kFailed when what arrives is none.
Received Receive(Channel& channel, Deadline deadline);
/// Waits for a message until `idle`; once it has begun it must be there within `frameTime`.
Received ReceiveNext(Channel& channel, Deadline idle, std::chrono::milliseconds frameTime);

}  // namespace proxy_protocol
