#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// An address of IPv4 (the first four bytes) or IPv6, in network byte order.
struct HostAddress {
  bool isV6 = false;
  std::array<uint8_t, 16> bytes{};
  /// Of a link-local IPv6 address: the interface's number.
  uint32_t scope = 0;

  /// In host byte order: 10.0.0.5 is 0x0A000005.
  uint32_t AsIpv4() const;
  /// "10.0.0.5", "fe80::1%eth0".
  std::string Text() const;

  friend bool operator==(const HostAddress&, const HostAddress&) = default;
};

enum class AddressKind { kAny, kV4 };

/// For whom a name is looked up. Names that the name service is stuck with count for each alone, so
/// that probes do not keep the agent from its own work.
enum class NameAsker {
  kProbe,  ///< up to 64 names at a time
  kAgent,  ///< up to 8
};

/// Four decimal numbers from 0 to 255, without leading zeros, with dots between them; in host byte
/// order. Nothing for any other text.
std::optional<uint32_t> ParseIpv4(std::string_view text);

/// What actions wait for a name.
constexpr std::chrono::seconds kNameLookupLimit{10};

/// The addresses that the system finds for a host's name (or for an address as text), in its order;
/// empty when there are none, when the system does not answer within `limit`, and when it is still
/// busy with as many other names as `asker` may have looked up at a time; the log then has the
/// reason. Addresses and "localhost" need no name service and are never refused. Who asks for a
/// name that is being looked up waits for the same answer. What the system would take for an
/// address of IPv4 although it is not written as one ("127.1", "010.0.0.1", "0x7F000001") is
/// refused. A look-up that was given up ends by itself later, and counts until then. Throws nothing
/// but std::bad_alloc; any number of threads may call at once.
std::vector<HostAddress> LookUpHost(const std::string& name, AddressKind kind,
                                    std::chrono::milliseconds limit,
                                    NameAsker asker = NameAsker::kProbe);

/// What a name service answers: addresses, or why there are none.
struct NameAnswer {
  std::vector<HostAddress> addresses;
  std::string reason;
};
/// May wait as long as it likes, and throw.
using NameService = std::function<NameAnswer(const std::string& name, AddressKind kind)>;

/// The system's name service.
NameAnswer AskSystem(const std::string& name, AddressKind kind);

/// `LookUpHost` with a name service of the caller's choice (that of who asked first, where a name
/// is being looked up). It is asked on another thread and may be at work when this returns.
std::vector<HostAddress> LookUpHostWith(const NameService& service, const std::string& name,
                                        AddressKind kind, std::chrono::milliseconds limit,
                                        NameAsker asker = NameAsker::kProbe);
