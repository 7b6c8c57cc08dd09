#include "agent/proxy_protocol/frame.h"

namespace proxy_protocol {

namespace {

Received NothingCame(Result result) {
  return {{}, std::move(result), false};
}

Received Failed(Result result) {
  return {{}, std::move(result), true};
}

// What follows the header's first byte.
Received ReceiveRest(Channel& channel, unsigned char first, Deadline deadline) {
  unsigned char header[kHeaderBytes] = {first};
  if (Result result = channel.Read(header + 1, kHeaderBytes - 1, deadline); !result)
    return Failed(std::move(result));
  const std::optional<uint32_t> length = DocumentLength(header);
  if (!length) return Failed({Result::Status::kFailed, "a message is empty or too long"});

  std::string document(*length, '\0');
  if (Result result = channel.Read(document.data(), document.size(), deadline); !result)
    return Failed(std::move(result));
  ParsedMessage parsed = ParseMessage(document);
  if (!parsed.error.empty()) return Failed({Result::Status::kFailed, parsed.error});
  return {std::move(parsed.message), {}, true};
}

}  // namespace

std::optional<uint32_t> DocumentLength(const unsigned char (&header)[kHeaderBytes]) {
  uint32_t length = 0;
  for (const unsigned char byte : header) length = length << 8 | byte;
  if (length == 0 || length > kMaxDocumentBytes) return std::nullopt;
  return length;
}

std::string FrameOf(const std::string& document) {
  std::string frame;
  frame.reserve(kHeaderBytes + document.size());
  for (int shift = 24; shift >= 0; shift -= 8)
    frame.push_back(static_cast<char>(document.size() >> shift & 0xFF));
  return frame += document;
}

Result Send(Channel& channel, const Message& message, Deadline deadline) {
  const std::string document = FormatMessage(message);
  if (document.size() > kMaxDocumentBytes)
    return {Result::Status::kFailed, "the message is too long"};
  const std::string frame = FrameOf(document);
  return channel.Write(frame.data(), frame.size(), deadline);
}

Received Receive(Channel& channel, Deadline deadline) {
  unsigned char first = 0;
  if (Result result = channel.Read(&first, 1, deadline); !result)
    return NothingCame(std::move(result));
  return ReceiveRest(channel, first, deadline);
}

Received ReceiveNext(Channel& channel, Deadline idle, std::chrono::milliseconds frameTime) {
  unsigned char first = 0;
  if (Result result = channel.Read(&first, 1, idle); !result) return NothingCame(std::move(result));
  return ReceiveRest(channel, first, After(frameTime));
}

}  // namespace proxy_protocol
