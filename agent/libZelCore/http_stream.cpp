#include "agent/libZelCore/http_stream.h"

#include <openssl/ssl.h>

#include <boost/asio/read.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <boost/asio/write.hpp>
#include <utility>

namespace asio = boost::asio;
using asio::ip::tcp;

namespace {

std::string AddressOf(const tcp::endpoint& endpoint) {
  const asio::ip::address address = endpoint.address();
  if (!address.is_v6() || !address.to_v6().is_v4_mapped()) return address.to_string();
  return asio::ip::make_address_v4(asio::ip::v4_mapped, address.to_v6()).to_string();
}

/// The parts that differ between plain TCP and TLS are what `Stream` is and how a connection
/// begins.
template <typename Stream>
class StreamSession : public HttpSession {
 public:
  template <typename... StreamArguments>
  StreamSession(std::shared_ptr<HttpShared> shared, asio::io_context& network, std::string address,
                StreamArguments&&... arguments)
      : HttpSession(std::move(shared), network, std::move(address)),
        stream_(std::forward<StreamArguments>(arguments)...) {}

 protected:
  std::shared_ptr<StreamSession> Self() {
    return std::static_pointer_cast<StreamSession>(shared_from_this());
  }
  void ReadSome(asio::mutable_buffer buffer) override {
    stream_.async_read_some(buffer, [self = Self()](const ErrorCode& ec, size_t byteCount) {
      self->OnRead(ec, byteCount);
    });
  }
  void ReadAtLeast(asio::mutable_buffer buffer, size_t byteCount) override {
    // What is there already comes without a turn of the event loop for each record of TLS.
    ErrorCode ec;
    size_t there = 0;
    while (!ec && there < buffer.size()) there += stream_.read_some(buffer + there, ec);
    if (ec == asio::error::would_block) ec.clear();
    if (ec || there >= byteCount) return OnPieceRead(ec, there);

    // Takes all there is room for as long as the least is not there yet.
    const auto isEnough = [least = byteCount - there, room = buffer.size() - there](
                              const ErrorCode& error, size_t count) {
      return error || count >= least ? size_t{0} : room - count;
    };
    asio::async_read(stream_, buffer + there, isEnough,
                     [self = Self(), there](const ErrorCode& error, size_t count) {
                       self->OnPieceRead(error, there + count);
                     });
  }
  void Write(asio::const_buffer buffer) override {
    asio::async_write(stream_, buffer,
                      [self = Self()](const ErrorCode& ec, size_t) { self->OnWritten(ec); });
  }
  size_t WriteAtOnce(asio::const_buffer) override { return 0; }
  void ShutdownSending() override {
    ErrorCode ignored;
    stream_.lowest_layer().shutdown(tcp::socket::shutdown_send, ignored);
  }
  void CloseSocket(bool discardsUnsent) override {
    ErrorCode ignored;
    if (discardsUnsent) stream_.lowest_layer().set_option(tcp::socket::linger(true, 0), ignored);
    stream_.lowest_layer().close(ignored);
  }

  Stream stream_;
};

class PlainSession : public StreamSession<tcp::socket> {
 public:
  using StreamSession::StreamSession;
  void Start() override {
    ErrorCode ignored;
    stream_.non_blocking(true, ignored);
    localAddress_ = AddressOf(stream_.local_endpoint(ignored));
    BeginServing();
  }

 protected:
  ConnectionFacts Facts() override { return {false, false, localAddress_}; }
  size_t WriteAtOnce(asio::const_buffer buffer) override {
    ErrorCode ec;  // what it is, the waiting write that follows finds out
    const size_t written = stream_.write_some(buffer, ec);
    return ec ? 0 : written;
  }

 private:
  std::string localAddress_;
};

class TlsSession : public StreamSession<asio::ssl::stream<tcp::socket>> {
 public:
  using StreamSession::StreamSession;
  void Start() override {
    BeginHandshake();
    stream_.async_handshake(asio::ssl::stream_base::server, [self = Self()](const ErrorCode& ec) {
      auto* session = static_cast<TlsSession*>(self.get());
      if (ec) return session->Close();
      ErrorCode ignored;
      session->stream_.next_layer().non_blocking(true, ignored);
      session->BeginServing();
    });
  }

 protected:
  ConnectionFacts Facts() override { return {true, ShowsCertificate(), {}}; }

 private:
  /// The handshake has verified it: with one that is not good there would be no session.
  bool ShowsCertificate() {
    SSL* const ssl = stream_.native_handle();
    X509* const certificate = SSL_get_peer_certificate(ssl);
    X509_free(certificate);
    return certificate != nullptr && SSL_get_verify_result(ssl) == X509_V_OK;
  }
};

}  // namespace

std::shared_ptr<HttpSession> MakePlainSession(std::shared_ptr<HttpShared> shared,
                                              asio::io_context& network, tcp::socket socket,
                                              std::string address) {
  return std::make_shared<PlainSession>(std::move(shared), network, std::move(address),
                                        std::move(socket));
}

std::shared_ptr<HttpSession> MakeTlsSession(std::shared_ptr<HttpShared> shared,
                                            asio::io_context& network, tcp::socket socket,
                                            std::string address, asio::ssl::context& context) {
  return std::make_shared<TlsSession>(std::move(shared), network, std::move(address),
                                      std::move(socket), context);
}
