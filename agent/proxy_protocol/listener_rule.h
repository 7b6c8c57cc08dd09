#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace proxy_protocol {

/// Who listens at a pipe, on systems where anybody may make a pipe of any name. Accounts are
/// written "DOMAIN\name".
struct PipeOwner {
  /// Empty when it is not known.
  std::string account;
  /// Whether that is the system's own account, or the one of this process.
  bool isSystem = false;
  bool isOurs = false;
  /// The session that the listener runs in.
  uint32_t session = 0;
  /// Who is logged on in that session; empty when nobody is, or it is not known.
  std::string sessionUser;
};

/// The session that a pipe's name tells: 3 of "\\.\pipe\zelproxy-3".
std::optional<uint32_t> SessionOfPipe(const std::string& pipe);

/// Why the listener at `pipe` is turned away, a sentence; empty when it is not. It may be the
/// system, this process's account or the user of the session whose pipe it is: of the one in its
/// name or, with a name that tells none, of the listener's own.
std::string WhyNotHeard(const std::string& pipe, const PipeOwner& owner);

}  // namespace proxy_protocol
