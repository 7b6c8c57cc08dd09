#pragma once

#include <chrono>
#include <cstdint>
#include <initializer_list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <variant>

struct sd_bus;
struct sd_bus_message;

// Calls over the system's message bus. Link zel_systemd.

/// What is called, e.g. {"org.freedesktop.login1", "/org/freedesktop/login1",
/// "org.freedesktop.login1.Manager", "PowerOff"}.
struct BusMethod {
  std::string destination;
  std::string path;
  std::string interface;
  std::string member;
};

/// A boolean ("b"), a number ("u") or a text ("s").
using BusArgument = std::variant<bool, uint32_t, std::string>;

/// What a call answered. Values are read in their order; what is not there, or of another type, is
/// none.
class BusReply {
 public:
  /// Whether the call succeeded.
  explicit operator bool() const { return message_ != nullptr; }
  /// For the log; empty on success.
  const std::string& Error() const { return error_; }
  /// The name of the error, "org.freedesktop.DBus.Error.AccessDenied" for example; empty where the
  /// bus failed by itself.
  const std::string& ErrorName() const { return errorName_; }

  /// `type` is 's', 'o' or 'g'.
  std::optional<std::string> ReadText(char type = 's');
  std::optional<uint32_t> ReadNumber();
  std::optional<bool> ReadBool();
  /// Goes into an array ('a'), structure ('r'), dictionary entry ('e') or variant ('v') with these
  /// contents. False when there is none, or no more.
  bool Enter(char type, const char* contents);
  bool Exit();
  /// Reads an "a{sv}": booleans are "yes" or "no", numbers decimal; other values than these and
  /// texts are left out. None when it is of another form.
  std::optional<std::map<std::string, std::string>> ReadProperties();

 private:
  friend class SystemBus;
  struct Unref {
    void operator()(sd_bus_message* message) const;
  };

  bool ReadProperty(std::map<std::string, std::string>* properties);
  bool ReadVariant(const std::string& name, std::map<std::string, std::string>* properties);

  std::unique_ptr<sd_bus_message, Unref> message_;
  std::string error_;
  std::string errorName_;
};

/// A connection to the system's bus, which `DBUS_SYSTEM_BUS_ADDRESS` may name. Threads: one at a
/// time. Throws only for want of memory.
class SystemBus {
 public:
  /// Everything together, connecting included, takes at most `time`.
  explicit SystemBus(std::chrono::milliseconds time);

  /// Whether there is a bus.
  explicit operator bool() const { return bus_ != nullptr; }
  /// Why there is none, for the log.
  const std::string& Error() const { return error_; }

  /// Calls and waits for the answer. Without a bus the reply says why.
  BusReply Call(const BusMethod& method, std::initializer_list<BusArgument> arguments = {});
  /// All properties of an object.
  BusReply GetProperties(const std::string& destination, const std::string& path,
                         const std::string& interface);

 private:
  struct Close {
    void operator()(sd_bus* bus) const;
  };
  using Clock = std::chrono::steady_clock;

  int WaitUntilReady();
  uint64_t RemainingUs() const;

  const Clock::time_point deadline_;
  std::unique_ptr<sd_bus, Close> bus_;
  std::string error_;
};
