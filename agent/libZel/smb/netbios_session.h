#pragma once

#include <string_view>

#include "agent/libZel/network/byte_stream.h"
#include "agent/libZel/smb/bytes.h"

namespace smb {

/// Messages on a TCP connection, each behind its length: in a NetBIOS session (RFC 1002 section
/// 4.3), or directly on TCP ([MS-SMB2] section 2.1). What fails throws std::runtime_error with a
/// sentence for the log.
class NetbiosSession {
 public:
  /// No message of a server that this client understands is longer.
  static constexpr size_t kMaxMessageBytes = 0x1FFFF;

  /// `stream` is the caller's and outlives this object.
  NetbiosSession(ByteStream& stream, bool isDirect) : stream_(stream), isDirect_(isDirect) {}

  /// Asks for a session with `calledName`. Not for SMB directly on TCP.
  void Request(std::string_view calledName, Deadline deadline);
  void Send(ByteView message, Deadline deadline);
  /// The next message, keep-alives left out. More than a few of them since the last request are a
  /// failure: no server needs them while somebody waits for its answer.
  Bytes Receive(Deadline deadline);

 private:
  struct Header {
    uint8_t type;
    size_t length;
  };

  /// Of the next packet that is no keep-alive.
  Header NextHeader(Deadline deadline);
  Header ReadHeader(Deadline deadline);
  [[noreturn]] void Refuse(const Header& header, Deadline deadline);

  ByteStream& stream_;
  const bool isDirect_;
  int keepAlives_ = 0;  ///< since the last request
};

/// A NetBIOS name as it stands in a message (RFC 1001 section 14.1): the name in capitals, filled
/// up with blanks to 15 characters, and the number of a service. Throws std::runtime_error for a
/// name that is empty or longer than 15 bytes.
Bytes EncodeNetbiosName(std::string_view name, uint8_t service);

}  // namespace smb
