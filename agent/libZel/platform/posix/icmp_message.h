#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

/// An ICMP echo request (RFC 792, RFC 4443), and how its answer is known.
struct EchoRequest {
  bool isV6 = false;
  uint16_t identifier = 0;
  uint16_t sequence = 0;
  /// Random, so that nobody who does not see the request can answer it.
  std::array<uint8_t, 32> payload{};

  /// As it is sent. The checksum is set for IPv4; for IPv6 the system sets it.
  std::array<uint8_t, 40> Bytes() const;

  /// Whether `message`, of the ICMP header on, is the answer to this request.
  bool IsAnsweredBy(std::span<const uint8_t> message) const;
};

/// What an IPv4 packet carries, behind its header; empty when the header is none.
std::span<const uint8_t> BehindIpv4Header(std::span<const uint8_t> packet);
