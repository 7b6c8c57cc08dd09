#include "agent/libZel/platform/posix/system_bus.h"

#include <systemd/sd-bus.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <new>
#include <utility>

#include "agent/libZel/system_error_text.h"

namespace {

struct CallError {
  CallError() = default;
  CallError(const CallError&) = delete;
  CallError& operator=(const CallError&) = delete;
  ~CallError() { sd_bus_error_free(&value); }
  sd_bus_error value{};
};

// The functions of the bus answer a negative error number.
std::string BusErrorText(int result) {
  if (result == -ENOMEM) throw std::bad_alloc();
  return SystemErrorText(-result);
}

int AppendArgument(sd_bus_message* message, const BusArgument& argument) {
  if (const auto* const text = std::get_if<std::string>(&argument))
    return sd_bus_message_append_basic(message, 's', text->c_str());
  if (const auto* const number = std::get_if<uint32_t>(&argument))
    return sd_bus_message_append_basic(message, 'u', number);
  const int flag = std::get<bool>(argument) ? 1 : 0;
  return sd_bus_message_append_basic(message, 'b', &flag);
}

// A basic value as a text; none for what is no text, boolean or number.
std::optional<std::string> ReadBasic(sd_bus_message* message, char type) {
  if (type == 's' || type == 'o' || type == 'g') {
    const char* text = nullptr;
    if (sd_bus_message_read_basic(message, type, &text) <= 0) return std::nullopt;
    return text;
  }
  if (type == 'b') {
    int flag = 0;
    if (sd_bus_message_read_basic(message, type, &flag) <= 0) return std::nullopt;
    return flag ? "yes" : "no";
  }
  if (type == 'u') {
    uint32_t number = 0;
    if (sd_bus_message_read_basic(message, type, &number) <= 0) return std::nullopt;
    return std::to_string(number);
  }
  if (type == 't') {
    uint64_t number = 0;
    if (sd_bus_message_read_basic(message, type, &number) <= 0) return std::nullopt;
    return std::to_string(number);
  }
  return std::nullopt;
}

// Asked before a bus is opened, which loads libsystemd: that takes 2 MiB of memory.
bool IsThereABus() {
  return std::getenv("DBUS_SYSTEM_BUS_ADDRESS") != nullptr ||
         ::access("/run/dbus/system_bus_socket", F_OK) == 0;
}

bool IsRead(char type) {
  return std::string_view("sogbut").find(type) != std::string_view::npos;
}

}  // namespace

void BusReply::Unref::operator()(sd_bus_message* message) const {
  sd_bus_message_unref(message);
}

std::optional<std::string> BusReply::ReadText(char type) {
  return message_ ? ReadBasic(message_.get(), type) : std::nullopt;
}

std::optional<uint32_t> BusReply::ReadNumber() {
  uint32_t number = 0;
  if (!message_ || sd_bus_message_read_basic(message_.get(), 'u', &number) <= 0)
    return std::nullopt;
  return number;
}

std::optional<bool> BusReply::ReadBool() {
  int flag = 0;
  if (!message_ || sd_bus_message_read_basic(message_.get(), 'b', &flag) <= 0) return std::nullopt;
  return flag != 0;
}

bool BusReply::Enter(char type, const char* contents) {
  return message_ && sd_bus_message_enter_container(message_.get(), type, contents) > 0;
}

bool BusReply::Exit() {
  return message_ && sd_bus_message_exit_container(message_.get()) >= 0;
}

std::optional<std::map<std::string, std::string>> BusReply::ReadProperties() {
  if (!Enter('a', "{sv}")) return std::nullopt;
  std::map<std::string, std::string> properties;
  while (Enter('e', "sv")) {
    if (!ReadProperty(&properties) || !Exit()) return std::nullopt;
  }
  if (!Exit()) return std::nullopt;
  return properties;
}

bool BusReply::ReadProperty(std::map<std::string, std::string>* properties) {
  const std::optional<std::string> name = ReadText();
  return name && ReadVariant(*name, properties);
}

bool BusReply::ReadVariant(const std::string& name,
                           std::map<std::string, std::string>* properties) {
  char type = 0;
  const char* contents = nullptr;
  if (sd_bus_message_peek_type(message_.get(), &type, &contents) <= 0 || !contents) return false;
  const char held = contents[0];
  const bool isBasic = held != 0 && contents[1] == 0 && IsRead(held);
  if (!isBasic) return sd_bus_message_skip(message_.get(), "v") >= 0;

  if (!Enter('v', std::string(1, held).c_str())) return false;
  std::optional<std::string> value = ReadBasic(message_.get(), held);
  if (!value) return false;
  (*properties)[name] = std::move(*value);
  return Exit();
}

void SystemBus::Close::operator()(sd_bus* bus) const {
  sd_bus_close_unref(bus);
}

SystemBus::SystemBus(std::chrono::milliseconds time) : deadline_(Clock::now() + time) {
  sd_bus* bus = nullptr;
  int result = IsThereABus() ? sd_bus_open_system(&bus) : -ENOENT;
  bus_.reset(bus);
  if (result >= 0) result = WaitUntilReady();
  if (result >= 0) return;
  error_ = "the system's bus cannot be reached: " + BusErrorText(result);
  bus_.reset();
}

// The first call would wait for the bus's greeting longer than for its own answer.
int SystemBus::WaitUntilReady() {
  for (;;) {
    const int isReady = sd_bus_is_ready(bus_.get());
    if (isReady != 0) return isReady;
    const int processed = sd_bus_process(bus_.get(), nullptr);
    if (processed < 0) return processed;
    if (processed > 0) continue;
    if (Clock::now() >= deadline_) return -ETIMEDOUT;
    const int waited = sd_bus_wait(bus_.get(), RemainingUs());
    if (waited < 0 && waited != -EINTR) return waited;
  }
}

// At least 1: 0 stands for the bus's own time.
uint64_t SystemBus::RemainingUs() const {
  const auto left =
      std::chrono::duration_cast<std::chrono::microseconds>(deadline_ - Clock::now()).count();
  return static_cast<uint64_t>(std::max<int64_t>(left, 1));
}

BusReply SystemBus::Call(const BusMethod& method, std::initializer_list<BusArgument> arguments) {
  BusReply reply;
  reply.error_ = error_;
  if (!bus_) return reply;

  sd_bus_message* made = nullptr;
  int result = sd_bus_message_new_method_call(bus_.get(), &made, method.destination.c_str(),
                                              method.path.c_str(), method.interface.c_str(),
                                              method.member.c_str());
  const std::unique_ptr<sd_bus_message, BusReply::Unref> call(made);
  for (const BusArgument& argument : arguments) {
    if (result >= 0) result = AppendArgument(call.get(), argument);
  }

  CallError error;
  sd_bus_message* answered = nullptr;
  if (result >= 0)
    result = sd_bus_call(bus_.get(), call.get(), RemainingUs(), &error.value, &answered);
  reply.message_.reset(answered);
  if (result >= 0) return reply;

  reply.message_.reset();
  reply.error_ =
      method.member + ": " + (error.value.message ? error.value.message : BusErrorText(result));
  if (error.value.name) reply.errorName_ = error.value.name;
  return reply;
}

BusReply SystemBus::GetProperties(const std::string& destination, const std::string& path,
                                  const std::string& interface) {
  return Call({destination, path, "org.freedesktop.DBus.Properties", "GetAll"}, {interface});
}
