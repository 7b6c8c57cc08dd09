#include "agent/libZel/network/tcp_stream.h"

#include <stdexcept>

struct TcpStream::Implementation {};

TcpStream::TcpStream() = default;
TcpStream::~TcpStream() = default;
void TcpStream::Connect(uint32_t, uint16_t, Deadline) {
  throw std::runtime_error("not there yet");
}
void TcpStream::Write(std::span<const uint8_t>, Deadline) {
  throw std::runtime_error("not there yet");
}
void TcpStream::Read(std::span<uint8_t>, Deadline) {
  throw std::runtime_error("not there yet");
}
void TcpStream::Close() noexcept {}
bool TcpStream::IsOpen() const {
  return false;
}
