#pragma once

#include <boost/asio/buffer.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>
#include <boost/system/system_error.hpp>
#include <cstdint>
#include <functional>
#include <span>
#include <thread>
#include <utility>
#include <vector>

/// The other side of one TCP connection, which does what a script says. It ends when the script
/// does, or when the client closes: what the script cannot send or receive ends it.
class ScriptedPeer {
 public:
  using Bytes = std::vector<uint8_t>;
  using Socket = boost::asio::ip::tcp::socket;
  using Script = std::function<void(Socket&)>;

  static constexpr uint32_t kAddress = 0x7F000001;

  explicit ScriptedPeer(Script script)
      : acceptor_(context_, {boost::asio::ip::address_v4(kAddress), 0}),
        thread_([this, script = std::move(script)] { Run(script); }) {}
  ~ScriptedPeer() {
    // Should no client have come, this is one.
    boost::system::error_code ignored;
    Socket(context_).connect(acceptor_.local_endpoint(), ignored);
    thread_.join();
  }

  uint16_t Port() const { return acceptor_.local_endpoint().port(); }

  static void Send(Socket& socket, std::span<const uint8_t> bytes) {
    boost::asio::write(socket, boost::asio::buffer(bytes.data(), bytes.size()));
  }
  static Bytes Receive(Socket& socket, size_t count) {
    Bytes bytes(count);
    boost::asio::read(socket, boost::asio::buffer(bytes));
    return bytes;
  }
  /// A message of a NetBIOS session, its header included.
  static Bytes ReceiveFrame(Socket& socket) {
    Bytes frame = Receive(socket, 4);
    const size_t length = size_t{frame[1]} << 16 | size_t{frame[2]} << 8 | frame[3];
    const Bytes message = Receive(socket, length);
    frame.insert(frame.end(), message.begin(), message.end());
    return frame;
  }
  /// Returns when the client has closed, by throwing what ends the script.
  static void AwaitEnd(Socket& socket) {
    for (;;) Receive(socket, 1);
  }

 private:
  void Run(const Script& script) {
    try {
      Socket socket(context_);
      acceptor_.accept(socket);
      script(socket);
    } catch (const boost::system::system_error&) {
      // The client is gone, as it may.
    }
  }

  boost::asio::io_context context_;
  boost::asio::ip::tcp::acceptor acceptor_;
  std::thread thread_;
};

/// A port of this machine at which nobody listens.
inline uint16_t UnusedPort() {
  boost::asio::io_context context;
  return boost::asio::ip::tcp::acceptor(context,
                                        {boost::asio::ip::address_v4(ScriptedPeer::kAddress), 0})
      .local_endpoint()
      .port();
}
