#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "tests/agent/temporary_directory.h"

/// A Samba file server of the test's own, on port 139 of a loopback address of its own, with its
/// files in a directory of its own. It ends with the object, at the latest with the program. Only
/// root can start it: the port and the change of the user need that.
class SambaServer {
 public:
  /// The one user. A domain before the name does not matter to the server.
  static constexpr const char* kUser = "alice";
  static constexpr const char* kPassword = "Sch\u00f6n! 7 blue%\u0433\u0440\u0438\u0431\u044b";

  // The shares: for the user; for everybody, anonymous log-ins included; for others than the user;
  // for whoever encrypts; one with a name that is not ASCII.
  static constexpr const char* kShare = "files";
  static constexpr const char* kOpenShare = "open";
  static constexpr const char* kClosedShare = "closed";
  static constexpr const char* kSealedShare = "sealed";
  static constexpr const char* kUnicodeShare = "Gr\u00f6\u00dfe \u65e5\u672c";

  /// Starts it and waits until it can be connected to. `settings` are more lines for its
  /// configuration, such as "server signing = mandatory", "server max protocol = SMB2_02" or
  /// "map to guest = bad user". Throws std::runtime_error saying why it does not start.
  explicit SambaServer(const std::vector<std::string>& settings = {});
  ~SambaServer();
  SambaServer(const SambaServer&) = delete;
  SambaServer& operator=(const SambaServer&) = delete;

  /// Ends it and all its connections. Does nothing when it has ended.
  void Stop();

  /// In host byte order.
  uint32_t Address() const { return address_; }
  std::string DottedAddress() const;

  std::string Log() const;
  /// Waits, up to ten seconds, until `text` stands in the log `count` times; whether it does. Each
  /// request that arrives is logged by its name: "opcode[SMB2_OP_SESSSETUP]", and so "TCON",
  /// "TDIS", "LOGOFF".
  bool WaitForLog(std::string_view text, size_t count = 1) const;

 private:
  void WriteConfiguration(const std::vector<std::string>& settings) const;
  void AddUser() const;
  bool IsAnswering() const;

  std::string PathOf(const char* name) const { return (directory_.Native() / name).string(); }
  /// Starts the program, its streams being `input` and a file; it leads a group of processes.
  pid_t Launch(const std::string& program, const std::vector<std::string>& arguments,
               const std::string& input) const;

  TemporaryDirectory directory_;
  uint32_t address_;
  pid_t process_ = 0;
};
