#include "agent/libZel/network/tcp_stream.h"

#include <boost/asio/buffer.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>
#include <chrono>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;

namespace {

/// How long an operation that was given up may take to end.
constexpr std::chrono::seconds kEndTime{1};

}  // namespace

struct TcpStream::Implementation {
  asio::io_context context{1};
  tcp::socket socket{context};
  /// An operation has not ended though its socket is closed, as happens under Wine: whoever waited
  /// for it would wait for ever, so this is left to the end of the process.
  bool isStuck = false;

  void Close() {
    error_code ignored;
    socket.shutdown(tcp::socket::shutdown_send, ignored);
    socket.close(ignored);
  }

  /// `start` begins one operation, whose handler it is given. Returns when that has succeeded.
  template <typename Start>
  void Wait(const char* what, Deadline deadline, Start start) {
    const auto result = std::make_shared<std::optional<error_code>>();
    start([result](const error_code& error, auto&&...) { *result = error; });
    context.restart();
    while (!*result && context.run_one_until(deadline) > 0) {
    }
    const bool isLate = !*result;
    if (!isLate && !**result) return;

    if (isLate) GiveUp(*result);
    Close();
    const std::string reason = isLate ? "no answer in time" : Reason(**result);
    throw std::runtime_error(std::string(what) + ": " + reason);
  }

  /// What is under way refers to the caller's bytes: it should have ended before they go. It is
  /// cancelled while the socket is open, because Wine forgets more of what a closed one had.
  void GiveUp(const std::optional<error_code>& result) {
    error_code ignored;
    socket.cancel(ignored);
    RunUntilEnded(result);
    if (result) return;
    Close();
    RunUntilEnded(result);
    isStuck = !result;
  }

  void RunUntilEnded(const std::optional<error_code>& result) {
    const Deadline end = Deadline::clock::now() + kEndTime;
    context.restart();
    while (!result && context.run_one_until(end) > 0) {
    }
  }

  static std::string Reason(const error_code& error) {
    return error == asio::error::eof ? "the other side closed the connection" : error.message();
  }
};

TcpStream::TcpStream() = default;

TcpStream::~TcpStream() {
  Close();
}

void TcpStream::Connect(uint32_t address, uint16_t port, Deadline deadline) {
  Close();
  implementation_ = std::make_unique<Implementation>();
  const tcp::endpoint peer(asio::ip::address_v4(address), port);
  implementation_->Wait("connecting", deadline, [&](auto handler) {
    implementation_->socket.async_connect(peer, handler);
  });
  error_code ignored;
  implementation_->socket.set_option(tcp::no_delay(true), ignored);
}

void TcpStream::Write(std::span<const uint8_t> bytes, Deadline deadline) {
  if (!IsOpen()) throw std::runtime_error("sending: not connected");
  implementation_->Wait("sending", deadline, [&](auto handler) {
    asio::async_write(implementation_->socket, asio::buffer(bytes.data(), bytes.size()), handler);
  });
}

void TcpStream::Read(std::span<uint8_t> bytes, Deadline deadline) {
  if (!IsOpen()) throw std::runtime_error("receiving: not connected");
  implementation_->Wait("receiving", deadline, [&](auto handler) {
    asio::async_read(implementation_->socket, asio::buffer(bytes.data(), bytes.size()), handler);
  });
}

void TcpStream::Close() noexcept {
  if (!implementation_) return;
  implementation_->Close();
  if (implementation_->isStuck) static_cast<void>(implementation_.release());
  implementation_.reset();
}

bool TcpStream::IsOpen() const {
  return implementation_ && implementation_->socket.is_open();
}
