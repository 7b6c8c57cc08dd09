#include <exception>

#include "agent/libZel/debug_context.h"
#include "agent/libZel/smb/connection.h"
#include "libZel/smb.h"

namespace {

/// Runs one step: 1, or 0 with the reason in the log. No exception passes.
template <typename Operation>
int Attempt(const char* what, const smb::Connection& connection, Operation operation) noexcept {
  try {
    try {
      operation();
      return 1;
    } catch (const std::exception& error) {
      const std::string& peer = connection.Peer();
      LibraryLog().PrintWithNL("%s with the file server %s failed: %s", what,
                               peer.empty() ? "(none)" : peer, error.what());
    }
  } catch (...) {
    // Without memory there is no log line either.
  }
  return 0;
}

}  // namespace

CsTcpClient::CsTcpClient(int isDirect)
    : connection_(std::make_unique<smb::Connection>(isDirect != 0)) {}
CsTcpClient::~CsTcpClient() = default;

int CsTcpClient::TcpConnect(unsigned long address, unsigned short port) {
  return Attempt("TCP connection", *connection_,
                 [&] { connection_->Connect(static_cast<uint32_t>(address), port); });
}

void CsTcpClient::TcpDisconnect() {
  connection_->Disconnect();
}

int CsNbtClient::NbtSessionRequest(const ZelString& calledName) {
  return Attempt("NetBIOS session", *connection_,
                 [&] { connection_->RequestSession(std::string(calledName.Utf8())); });
}

void CsNbtClient::NbtDisconnect() {
  connection_->EndSession();
}

CsSmbClient::CsSmbClient(int isDirect) : CsNbtClient(isDirect) {}
CsSmbClient::~CsSmbClient() = default;

int CsSmbClient::SmbSessionNegotiate() {
  return Attempt("SMB negotiation", *connection_, [&] { connection_->Negotiate(); });
}

int CsSmbClient::SmbSessionSetup(const ZelString& user, const ZelString& password) {
  return Attempt("SMB log-in", *connection_, [&] { connection_->LogIn(user, password); });
}

int CsSmbClient::SmbTreeConnect(const ZelString& share, _CsSmbTreeInfo& tree) {
  return Attempt("opening a share", *connection_, [&] { connection_->OpenShare(share, tree); });
}

int CsSmbClient::SmbTreeDisconnect(_CsSmbTreeInfo& tree) {
  return Attempt("closing a share", *connection_, [&] { connection_->CloseShare(tree); });
}

int CsSmbClient::SmbSessionLogOff() {
  return Attempt("SMB log-off", *connection_, [&] { connection_->LogOff(); });
}
