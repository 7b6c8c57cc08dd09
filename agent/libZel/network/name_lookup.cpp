#include "agent/libZel/network/name_lookup.h"

#include <algorithm>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <charconv>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <system_error>
#include <thread>
#include <utility>

#include "agent/libZel/ascii.h"
#include "agent/libZel/debug_context.h"

namespace asio = boost::asio;
using asio::ip::tcp;
using ErrorCode = boost::system::error_code;
using std::chrono::milliseconds;

namespace {

/// A name service that is stuck holds a thread for each name; more of them are not started.
constexpr size_t kMaxOfProbes = 64;
/// The agent asks for the way to its relay and its master at most.
constexpr size_t kMaxOfAgent = 8;
/// DNS has no longer names, and no service is troubled with what is none.
constexpr size_t kMaxHostNameBytes = 255;

/// Shared by those who wait for an answer and the thread that gets it; whoever is last frees it.
struct LookUp {
  std::mutex mutex;
  std::condition_variable done;
  std::optional<NameAnswer> answer;
};

HostAddress FromAsio(const asio::ip::address& address) {
  HostAddress host;
  if (address.is_v4()) {
    const auto bytes = address.to_v4().to_bytes();
    std::copy(bytes.begin(), bytes.end(), host.bytes.begin());
    return host;
  }
  const asio::ip::address_v6 v6 = address.to_v6();
  if (v6.is_v4_mapped()) return FromAsio(asio::ip::make_address_v4(asio::ip::v4_mapped, v6));
  host.isV6 = true;
  host.bytes = v6.to_bytes();
  host.scope = static_cast<uint32_t>(v6.scope_id());
  return host;
}

bool IsNumberLabel(std::string_view label) {
  const bool isHexadecimal = label.starts_with("0x") || label.starts_with("0X");
  if (isHexadecimal) return label.find_first_not_of("0123456789abcdefABCDEF", 2) == label.npos;
  return !label.empty() && label.find_first_not_of("0123456789") == label.npos;
}

/// No host's name ends in a number, but systems read addresses out of such texts in ways of their
/// own, octal numbers among them.
bool EndsInNumber(std::string_view name) {
  if (name.ends_with('.')) name.remove_suffix(1);
  const size_t dot = name.rfind('.');
  return IsNumberLabel(dot == name.npos ? name : name.substr(dot + 1));
}

HostAddress Loopback(bool isV6) {
  if (isV6) return FromAsio(asio::ip::address_v6::loopback());
  return FromAsio(asio::ip::address_v4::loopback());
}

/// This machine's name for itself (RFC 6761), which needs no name service.
bool IsLocalhost(std::string_view name) {
  if (name.ends_with('.')) name.remove_suffix(1);
  return EqualsIgnoringCase(name, "localhost");
}

/// Nothing where the name service is to be asked.
std::optional<NameAnswer> AnswerAtOnce(const std::string& name, AddressKind kind) {
  if (name.empty()) return NameAnswer{{}, "it is empty"};
  if (name.size() > kMaxHostNameBytes) return NameAnswer{{}, "it is too long"};
  if (name.find('\0') != name.npos) return NameAnswer{{}, "it holds a NUL character"};

  ErrorCode error;
  if (name.find(':') != name.npos) {
    const asio::ip::address_v6 v6 = asio::ip::make_address_v6(name, error);
    // Windows takes addresses in brackets, too.
    if (error || name.starts_with('[')) return NameAnswer{{}, "it is no address of IPv6"};
    const HostAddress address = FromAsio(v6);
    if (address.isV6 && kind == AddressKind::kV4) return NameAnswer{{}, "it is of IPv6"};
    return NameAnswer{{address}, {}};
  }
  if (const auto number = ParseIpv4(name)) {
    return NameAnswer{{FromAsio(asio::ip::address_v4(*number))}, {}};
  }
  if (EndsInNumber(name)) return NameAnswer{{}, "it is neither a name nor an address"};
  if (IsLocalhost(name)) {
    if (kind == AddressKind::kV4) return NameAnswer{{Loopback(false)}, {}};
    return NameAnswer{{Loopback(false), Loopback(true)}, {}};
  }
  return std::nullopt;
}

/// The names that are being looked up: each once, however many wait for it, and until the name
/// service is done with it, however many gave up waiting.
class LookUps {
 public:
  explicit LookUps(size_t max) : max_(max) {}

  /// The look-up that is under way, or a new one; null, with the reason, when it cannot be started.
  std::shared_ptr<LookUp> Join(const NameService& service, const std::string& name,
                               AddressKind kind, std::string* reason) {
    const Key key(kind, name);
    const std::lock_guard lock(mutex_);
    if (const auto found = underWay_.find(key); found != underWay_.end()) return found->second;
    if (underWay_.size() >= max_) {
      *reason = "the name service is still busy with " + std::to_string(max_) + " other names";
      return nullptr;
    }
    const auto lookUp = std::make_shared<LookUp>();
    underWay_.emplace(key, lookUp);
    try {
      std::thread([=, this] { Run(lookUp, service, key); }).detach();
    } catch (const std::exception& error) {
      underWay_.erase(key);
      *reason = error.what();
      return nullptr;
    }
    return lookUp;
  }

 private:
  using Key = std::pair<AddressKind, std::string>;

  void Run(const std::shared_ptr<LookUp>& lookUp, const NameService& service, const Key& key) {
    NameAnswer answer;
    try {
      answer = service(key.second, key.first);
    } catch (const std::exception& error) {
      answer = {{}, error.what()};
    }
    {
      const std::lock_guard lock(mutex_);
      underWay_.erase(key);
    }
    const std::lock_guard lock(lookUp->mutex);
    lookUp->answer = std::move(answer);
    lookUp->done.notify_all();
  }

  const size_t max_;
  std::mutex mutex_;
  std::map<Key, std::shared_ptr<LookUp>> underWay_;
};

LookUps& LookUpsOf(NameAsker asker) {
  // Never freed: what is stuck while the process ends may still come back.
  static auto& ofProbes = *new LookUps(kMaxOfProbes);
  static auto& ofAgent = *new LookUps(kMaxOfAgent);
  return asker == NameAsker::kAgent ? ofAgent : ofProbes;
}

NameAnswer AskInTime(const NameService& service, const std::string& name, AddressKind kind,
                     milliseconds limit, NameAsker asker) {
  std::string reason;
  const std::shared_ptr<LookUp> lookUp = LookUpsOf(asker).Join(service, name, kind, &reason);
  if (!lookUp) return {{}, reason};
  std::unique_lock lock(lookUp->mutex);
  if (!lookUp->done.wait_for(lock, limit, [&] { return lookUp->answer.has_value(); })) {
    return {{}, "the name service did not answer in " + std::to_string(limit.count()) + " ms"};
  }
  return *lookUp->answer;
}

}  // namespace

uint32_t HostAddress::AsIpv4() const {
  return uint32_t{bytes[0]} << 24 | uint32_t{bytes[1]} << 16 | uint32_t{bytes[2]} << 8 | bytes[3];
}

std::string HostAddress::Text() const {
  if (!isV6) return asio::ip::address_v4(AsIpv4()).to_string();
  return asio::ip::address_v6(bytes, scope).to_string();
}

std::optional<uint32_t> ParseIpv4(std::string_view text) {
  uint32_t address = 0;
  for (int part = 0; part < 4; ++part) {
    if (part > 0) {
      if (!text.starts_with('.')) return std::nullopt;
      text.remove_prefix(1);
    }
    uint8_t number = 0;
    const char* const start = text.data();
    const auto parsed = std::from_chars(start, start + text.size(), number);
    const auto digits = static_cast<size_t>(parsed.ptr - start);
    if (parsed.ec != std::errc() || (digits > 1 && text[0] == '0')) return std::nullopt;
    text.remove_prefix(digits);
    address = address << 8 | number;
  }
  if (!text.empty()) return std::nullopt;
  return address;
}

NameAnswer AskSystem(const std::string& name, AddressKind kind) {
  asio::io_context context;
  tcp::resolver resolver(context);
  constexpr auto kNoFlags = tcp::resolver::flags();
  ErrorCode error;
  const auto found = kind == AddressKind::kV4
                         ? resolver.resolve(tcp::v4(), name, "", kNoFlags, error)
                         : resolver.resolve(name, "", kNoFlags, error);
  NameAnswer answer;
  if (error) answer.reason = error.message();
  for (const auto& entry : found) answer.addresses.push_back(FromAsio(entry.endpoint().address()));
  return answer;
}

std::vector<HostAddress> LookUpHostWith(const NameService& service, const std::string& name,
                                        AddressKind kind, milliseconds limit, NameAsker asker) {
  std::optional<NameAnswer> answer = AnswerAtOnce(name, kind);
  if (!answer) answer = AskInTime(service, name, kind, limit, asker);
  if (answer->addresses.empty()) {
    LibraryLog().PrintWithNL("There is no address for the host \"%S\": %s",
                             ZelString(std::string_view(name).substr(0, kMaxHostNameBytes)),
                             answer->reason);
  }
  return std::move(answer->addresses);
}

std::vector<HostAddress> LookUpHost(const std::string& name, AddressKind kind, milliseconds limit,
                                    NameAsker asker) {
  return LookUpHostWith(AskSystem, name, kind, limit, asker);
}
