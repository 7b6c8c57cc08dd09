#include "agent/libZel/smb/connection.h"
#include "libZel/smb.h"

CsTcpClient::CsTcpClient(int) {}
CsTcpClient::~CsTcpClient() = default;
CsSmbClient::CsSmbClient(int isDirect) : CsNbtClient(isDirect) {}
CsSmbClient::~CsSmbClient() = default;
int CsTcpClient::TcpConnect(unsigned long, unsigned short) {
  return 0;
}
void CsTcpClient::TcpDisconnect() {}
int CsNbtClient::NbtSessionRequest(const ZelString&) {
  return 0;
}
void CsNbtClient::NbtDisconnect() {}
int CsSmbClient::SmbSessionNegotiate() {
  return 0;
}
int CsSmbClient::SmbSessionSetup(const ZelString&, const ZelString&) {
  return 0;
}
int CsSmbClient::SmbTreeConnect(const ZelString&, _CsSmbTreeInfo&) {
  return 0;
}
int CsSmbClient::SmbTreeDisconnect(_CsSmbTreeInfo&) {
  return 0;
}
int CsSmbClient::SmbSessionLogOff() {
  return 0;
}
