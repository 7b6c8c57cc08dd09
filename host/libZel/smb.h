#pragma once

#include <cstdint>
#include <memory>

#include "libZel/string.h"

// A client of file servers, in three layers: a TCP connection, a NetBIOS session on it (RFC 1001,
// RFC 1002), an SMB session in that ([MS-SMB2]: dialects 2.0.2 to 3.1.1). Each step needs the one
// before it.
//
// Steps answer 1 on success; 0 otherwise, with the reason in the library's log, where no password
// stands. Each waits at most 10 seconds in all, however slowly the other side answers. After a step
// that failed only the disconnects and the log-off do anything. Destruction closes the connection.
// Nothing throws. One thread at a time for an object; objects are independent.

/// An open share. 520 bytes; zeroed before use.
// The library's own name:
// NOLINTNEXTLINE(bugprone-reserved-identifier,readability-identifier-naming)
struct _CsSmbTreeInfo {
  uint32_t treeId;     ///< the server's number for it
  uint32_t shareType;  ///< [MS-SMB2] 2.2.10: 1 disk, 2 pipe, 3 printer
  TCHAR share[256];    ///< its name, terminated, cut where it does not fit
};
static_assert(sizeof(_CsSmbTreeInfo) == 520);

namespace smb {
class Connection;
}

class CsTcpClient {
 public:
  virtual ~CsTcpClient();
  CsTcpClient(const CsTcpClient&) = delete;
  CsTcpClient& operator=(const CsTcpClient&) = delete;

  /// Connects to an IPv4 address and a port, both in host byte order.
  int TcpConnect(unsigned long address, unsigned short port);
  void TcpDisconnect();

 protected:
  explicit CsTcpClient(int isDirect);

  std::unique_ptr<smb::Connection> connection_;
};

class CsNbtClient : public CsTcpClient {
 public:
  /// Asks for a session with the name `calledName`, "*SMBSERVER" for whatever file server is there.
  /// Directly on TCP there is none to ask for: 1, and nothing is sent.
  int NbtSessionRequest(const ZelString& calledName);
  /// Ends the session; the server notices when the connection closes.
  void NbtDisconnect();

 protected:
  using CsTcpClient::CsTcpClient;
};

class CsSmbClient : public CsNbtClient {
 public:
  /// `isDirect` 0: SMB in a NetBIOS session (port 139); 1: SMB directly on TCP (port 445).
  explicit CsSmbClient(int isDirect);
  ~CsSmbClient() override;

  /// Agrees on a dialect.
  int SmbSessionNegotiate();
  /// Logs in with NTLM version 2. `user` is "name", "DOMAIN\name" or "name@domain"; an empty one
  /// logs in anonymously.
  int SmbSessionSetup(const ZelString& user, const ZelString& password);
  /// Opens a share by its name, and notes it in `tree`.
  int SmbTreeConnect(const ZelString& share, _CsSmbTreeInfo& tree);
  int SmbTreeDisconnect(_CsSmbTreeInfo& tree);
  int SmbSessionLogOff();
};
