#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

/// When a step must be done.
using Deadline = std::chrono::steady_clock::time_point;

/// A TCP connection whose every wait ends at a deadline. What fails throws std::runtime_error with
/// a sentence for the log; the connection is then only good for closing. One thread at a time.
class TcpStream {
 public:
  TcpStream();
  ~TcpStream();
  TcpStream(const TcpStream&) = delete;
  TcpStream& operator=(const TcpStream&) = delete;

  /// `address` is IPv4; both numbers are in host byte order.
  void Connect(uint32_t address, uint16_t port, Deadline deadline);
  /// Sends all of `bytes`.
  void Write(std::span<const uint8_t> bytes, Deadline deadline);
  /// Fills all of `bytes`; the end of the connection before that is a failure.
  void Read(std::span<uint8_t> bytes, Deadline deadline);
  /// Tells the other side that nothing more comes, and closes. Does nothing when not connected.
  void Close() noexcept;
  bool IsOpen() const;

 private:
  struct Implementation;
  std::unique_ptr<Implementation> implementation_;
};
