// libsystemd's bus client, loaded at its first use: it comes with compression libraries that
// programs need only when they ask who is logged on (an agent that starts proxies does at once),
// and a system without systemd does not have it. Whoever links this file instead of libsystemd
// calls these functions, which stay inside the library that links them. Where libsystemd is missing
// there is no bus: opening one fails.

#include <dlfcn.h>
#include <systemd/sd-bus.h>

#include <cerrno>

#include "agent/libZel/platform/posix/loaded_function.h"

namespace {

// Open for the rest of the process: functions of it are remembered.
void* Library() {
  static void* const library = dlopen("libsystemd.so.0", RTLD_NOW | RTLD_LOCAL);
  return library;
}

template <typename Function>
Function* Load(Function* declared, const char* name) {
  return AsFunction(declared, Library() != nullptr ? dlsym(Library(), name) : nullptr);
}

template <typename Function, typename... Arguments>
int Call(Function* real, Arguments... arguments) {
  return real != nullptr ? real(arguments...) : -ENOENT;
}

}  // namespace

extern "C" {

int sd_bus_open_system(sd_bus** bus) {
  static const auto real = Load(&sd_bus_open_system, "sd_bus_open_system");
  return Call(real, bus);
}

int sd_bus_is_ready(sd_bus* bus) {
  static const auto real = Load(&sd_bus_is_ready, "sd_bus_is_ready");
  return Call(real, bus);
}

int sd_bus_process(sd_bus* bus, sd_bus_message** message) {
  static const auto real = Load(&sd_bus_process, "sd_bus_process");
  return Call(real, bus, message);
}

int sd_bus_wait(sd_bus* bus, uint64_t timeoutUs) {
  static const auto real = Load(&sd_bus_wait, "sd_bus_wait");
  return Call(real, bus, timeoutUs);
}

// Closes at once: what is still to be sent is part of a call that nobody waits for any more.
sd_bus* sd_bus_close_unref(sd_bus* bus) {
  static const auto real = Load(&sd_bus_close_unref, "sd_bus_close_unref");
  return real != nullptr ? real(bus) : nullptr;
}

int sd_bus_call(sd_bus* bus, sd_bus_message* message, uint64_t timeoutUs, sd_bus_error* error,
                sd_bus_message** reply) {
  static const auto real = Load(&sd_bus_call, "sd_bus_call");
  return Call(real, bus, message, timeoutUs, error, reply);
}

int sd_bus_message_new_method_call(sd_bus* bus, sd_bus_message** message, const char* destination,
                                   const char* path, const char* interface, const char* member) {
  static const auto real = Load(&sd_bus_message_new_method_call, "sd_bus_message_new_method_call");
  return Call(real, bus, message, destination, path, interface, member);
}

int sd_bus_message_append_basic(sd_bus_message* message, char type, const void* value) {
  static const auto real = Load(&sd_bus_message_append_basic, "sd_bus_message_append_basic");
  return Call(real, message, type, value);
}

int sd_bus_message_read_basic(sd_bus_message* message, char type, void* value) {
  static const auto real = Load(&sd_bus_message_read_basic, "sd_bus_message_read_basic");
  return Call(real, message, type, value);
}

int sd_bus_message_peek_type(sd_bus_message* message, char* type, const char** contents) {
  static const auto real = Load(&sd_bus_message_peek_type, "sd_bus_message_peek_type");
  return Call(real, message, type, contents);
}

int sd_bus_message_enter_container(sd_bus_message* message, char type, const char* contents) {
  static const auto real = Load(&sd_bus_message_enter_container, "sd_bus_message_enter_container");
  return Call(real, message, type, contents);
}

int sd_bus_message_exit_container(sd_bus_message* message) {
  static const auto real = Load(&sd_bus_message_exit_container, "sd_bus_message_exit_container");
  return Call(real, message);
}

int sd_bus_message_skip(sd_bus_message* message, const char* types) {
  static const auto real = Load(&sd_bus_message_skip, "sd_bus_message_skip");
  return Call(real, message, types);
}

sd_bus_message* sd_bus_message_unref(sd_bus_message* message) {
  static const auto real = Load(&sd_bus_message_unref, "sd_bus_message_unref");
  return real != nullptr ? real(message) : nullptr;
}

void sd_bus_error_free(sd_bus_error* error) {
  static const auto real = Load(&sd_bus_error_free, "sd_bus_error_free");
  if (real != nullptr) real(error);
}

}  // extern "C"
