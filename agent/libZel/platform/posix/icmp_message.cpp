#include "agent/libZel/platform/posix/icmp_message.h"

#include <algorithm>

namespace {

constexpr size_t kIcmpHeaderBytes = 8;
constexpr size_t kShortestIpv4Header = 20;
constexpr uint8_t kRequestV4 = 8;
constexpr uint8_t kReplyV4 = 0;
constexpr uint8_t kRequestV6 = 128;
constexpr uint8_t kReplyV6 = 129;

uint16_t WordAt(std::span<const uint8_t> bytes, size_t offset) {
  return static_cast<uint16_t>(bytes[offset] << 8 | bytes[offset + 1]);
}

void PutWord(std::span<uint8_t> bytes, size_t offset, uint16_t word) {
  bytes[offset] = static_cast<uint8_t>(word >> 8);
  bytes[offset + 1] = static_cast<uint8_t>(word);
}

/// RFC 1071, of an even number of bytes.
uint16_t Checksum(std::span<const uint8_t> bytes) {
  uint32_t sum = 0;
  for (size_t i = 0; i + 1 < bytes.size(); i += 2) sum += WordAt(bytes, i);
  while (sum >> 16 != 0) sum = (sum & 0xFFFF) + (sum >> 16);
  return static_cast<uint16_t>(~sum);
}

}  // namespace

std::array<uint8_t, 40> EchoRequest::Bytes() const {
  std::array<uint8_t, 40> bytes{};
  static_assert(sizeof bytes == kIcmpHeaderBytes + sizeof payload);
  bytes[0] = isV6 ? kRequestV6 : kRequestV4;
  PutWord(bytes, 4, identifier);
  PutWord(bytes, 6, sequence);
  std::copy(payload.begin(), payload.end(), bytes.begin() + kIcmpHeaderBytes);
  if (!isV6) PutWord(bytes, 2, Checksum(bytes));
  return bytes;
}

bool EchoRequest::IsAnsweredBy(std::span<const uint8_t> message) const {
  if (message.size() != kIcmpHeaderBytes + payload.size()) return false;
  const bool isReply = message[0] == (isV6 ? kReplyV6 : kReplyV4) && message[1] == 0;
  return isReply && WordAt(message, 4) == identifier && WordAt(message, 6) == sequence &&
         std::equal(payload.begin(), payload.end(), message.begin() + kIcmpHeaderBytes);
}

std::span<const uint8_t> BehindIpv4Header(std::span<const uint8_t> packet) {
  if (packet.size() < kShortestIpv4Header || packet[0] >> 4 != 4) return {};
  const size_t headerBytes = size_t{packet[0] & 0xFu} * 4;
  if (headerBytes < kShortestIpv4Header || headerBytes > packet.size()) return {};
  return packet.subspan(headerBytes);
}
