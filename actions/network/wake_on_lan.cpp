#include "actions/network/wake_on_lan.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

#include "module/module.h"
#include "windows_api.h"

namespace {

constexpr size_t kMacBytes = 6;
constexpr size_t kMacRepetitions = 16;
constexpr unsigned kPacketBytes = kMacBytes + kMacRepetitions * kMacBytes;
constexpr uint16_t kEchoPort = 7;
/// SO_BROADCAST of Winsock, which libZel understands everywhere.
constexpr int kBroadcastOption = 32;

using MacAddress = std::array<unsigned char, kMacBytes>;
using MagicPacket = std::array<char, kPacketBytes>;

/// Takes two characters for each byte, whatever they are: what is no hexadecimal number is 0, and
/// so is what the text is too short for.
MacAddress ParseMac(const ZelString& text) {
  const std::string_view digits = text.Utf8();
  MacAddress mac{};
  for (size_t i = 0; i < kMacBytes; ++i) {
    const std::string pair(digits.substr(std::min(2 * i, digits.size()), 2));
    mac[i] = static_cast<unsigned char>(std::strtol(pair.c_str(), nullptr, 16));
  }
  return mac;
}

MagicPacket MakePacket(const MacAddress& mac) {
  MagicPacket packet{};
  std::fill_n(packet.begin(), kMacBytes, '\xFF');
  for (size_t i = 1; i <= kMacRepetitions; ++i) {
    std::copy(mac.begin(), mac.end(), packet.begin() + static_cast<ptrdiff_t>(i * kMacBytes));
  }
  return packet;
}

}  // namespace

ResultCode CoreUtilsWakeUp(ZelContainer* params) {
  uint32_t address = 0;
  if (!params->GetInt32("IpAddress", &address, kNoIndex)) {
    Logger().ErrorWithNL("WakeUp: Missing IP address");
    return kBadParameter;
  }
  uint32_t mask = 0;
  if (!params->GetInt32("NetworkMask", &mask, kNoIndex)) {
    Logger().ErrorWithNL("WakeUp: Missing network mask");
    return kBadParameter;
  }
  ZelString macText;
  if (!params->GetString("MacAddress", &macText, kNoIndex)) {
    Logger().ErrorWithNL("WakeUp: Missing MAC address");
    return kBadParameter;
  }

  MagicPacket packet = MakePacket(ParseMac(macText));

  const std::unique_ptr<UdpSocket> socket = SocketFactory::CreateUdp();
  if (!socket) {
    Logger().ErrorWithNL("WakeUp: Failed to create UDP socket");
    return kSuccess;
  }
  if (!socket->SetOption(kBroadcastOption, 1)) {
    Logger().ErrorWithNL("WakeUp: Failed to enable broadcast");
    return kSuccess;
  }

  sockaddr_in broadcast{};
  broadcast.sin_family = AF_INET;
  broadcast.sin_port = htons(kEchoPort);
  broadcast.sin_addr.s_addr = htonl((address & mask) ^ ~mask);

  const int sent = socket->SendTo(broadcast, packet.data(), kPacketBytes);
  if (sent == static_cast<int>(kPacketBytes)) {
    Logger().TraceWithNL("WakeUp: Packet sent");
  } else {
    Logger().ErrorWithNL("WakeUp: Failed to send packet");
  }
  return kSuccess;
}
