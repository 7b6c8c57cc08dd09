// host/libZel: sockets, addresses, and the clients that reach other machines.

#include <algorithm>
#include <cstring>
#include <string>
#include <utility>

#include "tests/fake_host/ask.h"
#include "tests/fake_host/transcript.h"
#include "windows_api.h"

struct NetworkSocket::Implementation {};
namespace smb {
class Connection {};
}  // namespace smb

namespace {

/// What a tree's record is filled with.
constexpr unsigned char kFilled = 0x5A;

bool IsFilledWith(const _CsSmbTreeInfo& tree, unsigned char byte) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(&tree);
  return std::all_of(bytes, bytes + sizeof(tree), [byte](unsigned char b) { return b == byte; });
}

}  // namespace

// ---- sockets ----

NetworkSocket::NetworkSocket(std::unique_ptr<Implementation> implementation)
    : implementation_(std::move(implementation)) {}

NetworkSocket::~NetworkSocket() {
  Host().NoteRelease("~NetworkSocket");
}

bool NetworkSocket::SetOption(int option, int value) {
  return Ask("SetOption", List(std::to_string(option), std::to_string(value))) != 0;
}

/// The address's family, port and number as they are once in host byte order.
int UncheckedSocket::SendTo(sockaddr_in& to, char* data, unsigned length) {
  const std::string address =
      List(std::to_string(to.sin_family), std::to_string(ntohs(to.sin_port)),
           std::to_string(ntohl(to.sin_addr.s_addr)));
  return AskInt("SendTo",
                List("{" + address + "}", QuoteBytes({data, length}), std::to_string(length)));
}

/// The answer is whether there is a socket.
std::unique_ptr<UdpSocket> SocketFactory::CreateUdp() {
  if (!Ask("CreateUdp")) return nullptr;
  std::unique_ptr<UdpSocket> socket(new UdpSocket(nullptr));
  Host().Hold();
  return socket;
}

// ---- addresses and echoes ----

/// The answer is the address, -1 that the text is none.
bool IpAddress::SetTo(const ZelString& text) {
  const int64_t answer = Ask("IpAddress::SetTo", Quote(text), -1);
  if (answer < 0) return false;
  address_ = static_cast<uint32_t>(answer);
  return true;
}

/// Likewise.
bool IpAddress::SetToHostName(const ZelString& name) {
  const int64_t answer = Ask("IpAddress::SetToHostName", Quote(name), -1);
  if (answer < 0) return false;
  address_ = static_cast<uint32_t>(answer);
  return true;
}

bool PingICMP(ZelString host) {
  return Ask("PingICMP", Quote(host)) != 0;
}

// ---- file servers ----

CsTcpClient::CsTcpClient(int isDirect) {
  Host().Note("CsSmbClient(" + std::to_string(isDirect) + ")");
  Host().Hold();
}
CsTcpClient::~CsTcpClient() {
  Host().NoteRelease("~CsSmbClient");
}
CsSmbClient::CsSmbClient(int isDirect) : CsNbtClient(isDirect) {}
CsSmbClient::~CsSmbClient() = default;

int CsTcpClient::TcpConnect(unsigned long address, unsigned short port) {
  return AskInt("TcpConnect", List(std::to_string(address), std::to_string(port)));
}
void CsTcpClient::TcpDisconnect() {
  Host().Note("TcpDisconnect()");
}
int CsNbtClient::NbtSessionRequest(const ZelString& calledName) {
  return AskInt("NbtSessionRequest", Quote(calledName));
}
void CsNbtClient::NbtDisconnect() {
  Host().Note("NbtDisconnect()");
}
int CsSmbClient::SmbSessionNegotiate() {
  return AskInt("SmbSessionNegotiate");
}
int CsSmbClient::SmbSessionSetup(const ZelString& user, const ZelString& password) {
  return AskInt("SmbSessionSetup", List(Quote(user), Quote(password)));
}

/// Shows whether the record was zeroed; fills it in on success.
int CsSmbClient::SmbTreeConnect(const ZelString& share, _CsSmbTreeInfo& tree) {
  const char* content = IsFilledWith(tree, 0) ? "zeroed" : "not zeroed";
  const int answer = AskInt("SmbTreeConnect", List(Quote(share), content));
  if (answer) std::memset(&tree, kFilled, sizeof(tree));
  return answer;
}
/// Shows whether the record is as `SmbTreeConnect` filled it in. Fails, which nobody minds.
int CsSmbClient::SmbTreeDisconnect(_CsSmbTreeInfo& tree) {
  Host().Note(IsFilledWith(tree, kFilled) ? "SmbTreeDisconnect(filled)"
                                          : "SmbTreeDisconnect(not filled)");
  return 0;
}
/// Fails likewise.
int CsSmbClient::SmbSessionLogOff() {
  Host().Note("SmbSessionLogOff()");
  return 0;
}

// ---- HTTP ----

int CurlAdvancedGet(ZelString url, ZelString user, ZelString password, ZelString proxy,
                    ZelString proxyUser, ZelString proxyPassword, long long startOffset,
                    long timeoutSeconds, long long& received, bool failOnErrorStatus,
                    CurlProgress progress, void* userData) {
  const std::string arguments =
      List(Quote(url), Quote(user), Quote(password), Quote(proxy), Quote(proxyUser),
           Quote(proxyPassword), std::to_string(startOffset), std::to_string(timeoutSeconds),
           std::to_string(received), Flag(failOnErrorStatus), progress ? "given" : "null",
           Pointer(userData));
  return AskInt("CurlAdvancedGet", arguments);
}
