#include "agent/libZel/network/icmp_echo.h"

// Each of these headers needs those before it.
#include <winsock2.h>

#include <ws2ipdef.h>

#include <iphlpapi.h>

#include <icmpapi.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "agent/libZel/debug_context.h"
#include "agent/libZel/system_error_text.h"

using std::chrono::milliseconds;

namespace {

/// Beside the reply the system keeps an error and its own status in the buffer.
constexpr size_t kReplySpareBytes = 64;

using Payload = std::array<uint8_t, 32>;

/// Where the address and the status stand in an ICMPV6_ECHO_REPLY, which mingw-w64 does not
/// declare, and how long it is: an address of 26 bytes without gaps, then two numbers.
constexpr size_t kV6AddressOffset = 6;
constexpr size_t kV6StatusOffset = 28;
constexpr size_t kV6ReplyBytes = 36;

/// Random, so that nobody who does not see the request can answer it.
Payload MakePayload() {
  std::random_device random;
  Payload payload;
  std::generate(payload.begin(), payload.end(),
                [&] { return static_cast<uint8_t>(random() & 0xFF); });
  return payload;
}

/// Closes what the functions for echo requests open.
class EchoHandle {
 public:
  explicit EchoHandle(HANDLE handle) : handle_(handle) {}
  ~EchoHandle() {
    if (handle_ != INVALID_HANDLE_VALUE) IcmpCloseHandle(handle_);
  }
  EchoHandle(const EchoHandle&) = delete;
  EchoHandle& operator=(const EchoHandle&) = delete;
  HANDLE Get() const { return handle_; }

 private:
  const HANDLE handle_;
};

EchoAnswer NotAllowed(const HostAddress& address, DWORD error) {
  LibraryLog().PrintWithNL("The system allows no echo requests to %s: %s", address.Text(),
                           SystemErrorText(error));
  return EchoAnswer::kRefused;
}

EchoAnswer NoReply(const HostAddress& address, DWORD error) {
  if (error == ERROR_ACCESS_DENIED) return NotAllowed(address, error);
  if (error == IP_REQ_TIMED_OUT) return EchoAnswer::kNone;
  LibraryLog().PrintWithNL("No echo reply came from %s: %s", address.Text(),
                           SystemErrorText(error));
  return EchoAnswer::kFailed;
}

bool IsSame(const void* data, size_t sizeBytes, const Payload& payload) {
  return sizeBytes == payload.size() && std::memcmp(data, payload.data(), sizeBytes) == 0;
}

EchoAnswer SendV4(const HostAddress& address, const Payload& payload, DWORD limitMs) {
  const EchoHandle handle(IcmpCreateFile());
  if (handle.Get() == INVALID_HANDLE_VALUE) return NotAllowed(address, GetLastError());
  std::vector<uint64_t> buffer((sizeof(ICMP_ECHO_REPLY) + payload.size() + kReplySpareBytes) /
                               sizeof(uint64_t));
  IPAddr to = 0;
  std::memcpy(&to, address.bytes.data(), sizeof to);
  Payload sent = payload;
  const DWORD count =
      IcmpSendEcho(handle.Get(), to, sent.data(), sent.size(), nullptr, buffer.data(),
                   static_cast<DWORD>(buffer.size() * sizeof(uint64_t)), limitMs);
  if (count == 0) return NoReply(address, GetLastError());
  const auto& reply = *reinterpret_cast<const ICMP_ECHO_REPLY*>(buffer.data());
  if (reply.Status != IP_SUCCESS) return NoReply(address, reply.Status);
  const bool isAnswer = reply.Address == to && IsSame(reply.Data, reply.DataSize, payload);
  return isAnswer ? EchoAnswer::kCame : EchoAnswer::kNone;
}

EchoAnswer SendV6(const HostAddress& address, const Payload& payload, DWORD limitMs) {
  const EchoHandle handle(Icmp6CreateFile());
  if (handle.Get() == INVALID_HANDLE_VALUE) return NotAllowed(address, GetLastError());
  std::array<uint8_t, kV6ReplyBytes + sizeof(Payload) + kReplySpareBytes> buffer{};
  sockaddr_in6 from{};
  from.sin6_family = AF_INET6;
  sockaddr_in6 to = from;
  to.sin6_scope_id = address.scope;
  std::memcpy(&to.sin6_addr, address.bytes.data(), sizeof to.sin6_addr);
  Payload sent = payload;
  const DWORD count =
      Icmp6SendEcho2(handle.Get(), nullptr, nullptr, nullptr, &from, &to, sent.data(), sent.size(),
                     nullptr, buffer.data(), static_cast<DWORD>(buffer.size()), limitMs);
  if (count == 0) return NoReply(address, GetLastError());
  DWORD status = 0;
  std::memcpy(&status, &buffer[kV6StatusOffset], sizeof status);
  if (status != IP_SUCCESS) return NoReply(address, status);
  // The system hands over what has the request's identifier alone.
  const bool isPeer =
      std::memcmp(&buffer[kV6AddressOffset], &to.sin6_addr, sizeof to.sin6_addr) == 0;
  return isPeer ? EchoAnswer::kCame : EchoAnswer::kNone;
}

}  // namespace

EchoAnswer SendEcho(const HostAddress& address, milliseconds limit) {
  const Payload payload = MakePayload();
  const auto limitMs = static_cast<DWORD>(std::max<milliseconds::rep>(limit.count(), 0));
  return address.isV6 ? SendV6(address, payload, limitMs) : SendV4(address, payload, limitMs);
}
