#include "agent/libZel/smb/netbios_session.h"

#include <array>
#include <stdexcept>
#include <string>

namespace smb {

namespace {

// RFC 1002 section 4.3.1.
enum PacketType : uint8_t {
  kMessage = 0x00,
  kSessionRequest = 0x81,
  kPositiveResponse = 0x82,
  kNegativeResponse = 0x83,
  kRetargetResponse = 0x84,
  kKeepAlive = 0x85,
};

constexpr size_t kNetbiosHeaderBytes = 4;
constexpr size_t kNameBytes = 15;
constexpr int kMostKeepAlives = 16;
constexpr uint8_t kFileServer = 0x20;
constexpr uint8_t kWorkstation = 0x00;
/// Servers do not look at it.
constexpr std::string_view kCallingName = "ZELAGENT";

const char* WhyNegative(uint8_t code) {
  switch (code) {
    case 0x80:
      return "the server does not listen on the called name";
    case 0x81:
      return "the server does not listen for the calling name";
    case 0x82:
      return "the called name is not there";
    case 0x83:
      return "the server has no room for another session";
    default:
      return "the server gives no reason";
  }
}

}  // namespace

Bytes EncodeNetbiosName(std::string_view name, uint8_t service) {
  if (name.empty() || name.size() > kNameBytes)
    throw std::runtime_error("a NetBIOS name has 1 to 15 characters");
  std::string padded(name);
  for (char& c : padded) {
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  }
  padded.resize(kNameBytes, ' ');
  padded += static_cast<char>(service);

  ByteWriter encoded;
  encoded.U8(static_cast<uint8_t>(2 * padded.size()));
  for (const char c : padded) {
    const auto byte = static_cast<uint8_t>(c);
    encoded.U8(static_cast<uint8_t>('A' + (byte >> 4))).U8(static_cast<uint8_t>('A' + (byte & 15)));
  }
  return encoded.U8(0).Take();
}

void NetbiosSession::Request(std::string_view calledName, Deadline deadline) {
  const Bytes called = EncodeNetbiosName(calledName, kFileServer);
  const Bytes calling = EncodeNetbiosName(kCallingName, kWorkstation);
  const auto length = static_cast<uint8_t>(called.size() + calling.size());
  ByteWriter request;
  request.U8(kSessionRequest).U8(0).U8(0).U8(length).Raw(called).Raw(calling);
  stream_.Write(request.Take(), deadline);

  keepAlives_ = 0;
  const Header answer = NextHeader(deadline);
  if (answer.type != kPositiveResponse || answer.length != 0) Refuse(answer, deadline);
}

void NetbiosSession::Send(ByteView message, Deadline deadline) {
  if (message.size() > kMaxMessageBytes) throw std::runtime_error("the request is too long");
  // The length is big-endian, unlike those inside the message. In one piece with its header.
  const size_t length = message.size();
  ByteWriter framed;
  framed.U8(kMessage).U8(static_cast<uint8_t>(length >> 16));
  framed.U8(static_cast<uint8_t>(length >> 8)).U8(static_cast<uint8_t>(length)).Raw(message);
  stream_.Write(framed.Take(), deadline);
  keepAlives_ = 0;
}

Bytes NetbiosSession::Receive(Deadline deadline) {
  const Header header = NextHeader(deadline);
  if (header.type != kMessage) Refuse(header, deadline);
  if (header.length == 0 || header.length > kMaxMessageBytes)
    throw std::runtime_error("the server's answer has an impossible length");
  Bytes message(header.length);
  stream_.Read(message, deadline);
  return message;
}

NetbiosSession::Header NetbiosSession::NextHeader(Deadline deadline) {
  Header header = ReadHeader(deadline);
  while (header.type == kKeepAlive && header.length == 0) {
    if (++keepAlives_ > kMostKeepAlives)
      throw std::runtime_error("the server sends keep-alives without an end");
    header = ReadHeader(deadline);
  }
  return header;
}

NetbiosSession::Header NetbiosSession::ReadHeader(Deadline deadline) {
  std::array<uint8_t, kNetbiosHeaderBytes> bytes{};
  stream_.Read(bytes, deadline);
  const size_t length = size_t{bytes[1]} << 16 | size_t{bytes[2]} << 8 | bytes[3];
  // In a NetBIOS session the second byte holds flags; all but the length's seventeenth bit are 0.
  if (!isDirect_ && bytes[1] > 1)
    throw std::runtime_error("the server's answer is none of a NetBIOS session");
  return {bytes[0], length};
}

void NetbiosSession::Refuse(const Header& header, Deadline deadline) {
  if (header.type == kNegativeResponse && header.length == 1) {
    std::array<uint8_t, 1> code{};
    stream_.Read(code, deadline);
    throw std::runtime_error(std::string("no NetBIOS session: ") + WhyNegative(code[0]));
  }
  if (header.type == kRetargetResponse)
    throw std::runtime_error("no NetBIOS session: the server names another server");
  throw std::runtime_error("the server's answer is none of a NetBIOS session");
}

}  // namespace smb
