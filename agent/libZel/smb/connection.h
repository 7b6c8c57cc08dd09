#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "agent/libZel/network/tcp_stream.h"
#include "agent/libZel/smb/netbios_session.h"
#include "agent/libZel/smb/session.h"

namespace smb {

/// How long each step waits in all.
struct Limits {
  std::chrono::milliseconds step{10'000};
};

/// What stands behind a client of file servers: a connection and how far it has come. Steps throw
/// std::runtime_error with a sentence for the log when they fail or come out of turn; after that
/// only `LogOff` and the disconnects do anything.
class Connection {
 public:
  explicit Connection(bool isDirect) : isDirect_(isDirect) {}

  void SetLimits(const Limits& limits) { limits_ = limits; }

  /// `address` and `port` are in host byte order.
  void Connect(uint32_t address, uint16_t port);
  /// Does nothing where SMB goes directly on TCP.
  void RequestSession(const std::string& calledName);
  void Negotiate();
  void LogIn(const ZelString& user, const ZelString& password);
  void OpenShare(const ZelString& share, _CsSmbTreeInfo& tree);
  void CloseShare(_CsSmbTreeInfo& tree);
  void LogOff();
  /// No step but `Disconnect` does anything from now on.
  void EndSession();
  /// Closes; the object is then as it was made.
  void Disconnect();

  /// "address:port", empty when there is no connection, for the log.
  const std::string& Peer() const { return peer_; }

 private:
  enum class Stage { kNew, kConnected, kInSession, kNegotiated, kLoggedIn, kOver };

  template <typename Operation>
  void Step(Stage needed, Stage next, Operation operation);
  template <typename Operation>
  void Guard(Operation operation);

  const bool isDirect_;
  Limits limits_;
  std::string peer_;
  Stage stage_ = Stage::kNew;
  bool hasFailed_ = false;
  TcpStream stream_;
  std::optional<NetbiosSession> transport_;
  std::optional<Session> session_;
};

}  // namespace smb
