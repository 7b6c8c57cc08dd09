#pragma once

#include <cstdint>
#include <memory>
#include <span>

#include "agent/libZel/network/byte_stream.h"

/// A TCP connection whose every wait ends at a deadline. What fails throws std::runtime_error with
/// a sentence for the log; the connection is then closed. One thread at a time.
class TcpStream final : public ByteStream {
 public:
  TcpStream();
  ~TcpStream() override;
  TcpStream(const TcpStream&) = delete;
  TcpStream& operator=(const TcpStream&) = delete;

  /// `address` is IPv4; both numbers are in host byte order. An open connection is closed first.
  void Connect(uint32_t address, uint16_t port, Deadline deadline);
  void Write(std::span<const uint8_t> bytes, Deadline deadline) override;
  void Read(std::span<uint8_t> bytes, Deadline deadline) override;
  /// Tells the other side that nothing more comes, and closes. Does nothing when not connected.
  void Close() noexcept;
  bool IsOpen() const;

 private:
  struct Implementation;
  std::unique_ptr<Implementation> implementation_;
};
