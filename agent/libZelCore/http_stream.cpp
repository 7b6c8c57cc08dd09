#include "agent/libZelCore/http_stream.h"

#include <openssl/ssl.h>

#include <algorithm>
#include <boost/asio/read.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <boost/asio/write.hpp>
#include <optional>
#include <utility>
#include <vector>

namespace asio = boost::asio;
using asio::ip::tcp;

namespace {

constexpr size_t kRecordHeaderBytes = 5;  // of TLS
constexpr char kHandshakeRecord = 22;
constexpr size_t kLongestRecordBytes = 16 * 1024;
constexpr size_t kHelloStepBytes = 1024;  // most first records are shorter

/// The parts that differ between plain TCP and TLS are what `Stream` is and how a connection
/// begins.
template <typename Stream>
class StreamSession : public HttpSession {
 public:
  StreamSession(std::shared_ptr<HttpShared> shared, asio::io_context& network, std::string address,
                tcp::socket socket)
      : HttpSession(std::move(shared), network, std::move(address)), socket_(std::move(socket)) {}

 protected:
  /// What requests come from and replies go to, from `BeginServing` on.
  virtual Stream& Content() = 0;

  std::shared_ptr<StreamSession> Self() {
    return std::static_pointer_cast<StreamSession>(shared_from_this());
  }
  void ReadSome(asio::mutable_buffer buffer) override {
    Content().async_read_some(buffer, [self = Self()](const ErrorCode& ec, size_t byteCount) {
      self->OnRead(ec, byteCount);
    });
  }
  void ReadAtLeast(asio::mutable_buffer buffer, size_t byteCount) override {
    // What is there already comes without a turn of the event loop for each record of TLS.
    ErrorCode ec;
    size_t there = 0;
    while (!ec && there < buffer.size()) there += Content().read_some(buffer + there, ec);
    if (ec == asio::error::would_block) ec.clear();
    if (ec || there >= byteCount) return OnPieceRead(ec, there);

    // Takes all there is room for as long as the least is not there yet.
    const auto isEnough = [least = byteCount - there, room = buffer.size() - there](
                              const ErrorCode& error, size_t count) {
      return error || count >= least ? size_t{0} : room - count;
    };
    asio::async_read(Content(), buffer + there, isEnough,
                     [self = Self(), there](const ErrorCode& error, size_t count) {
                       self->OnPieceRead(error, there + count);
                     });
  }
  void Write(asio::const_buffer buffer) override {
    asio::async_write(Content(), buffer,
                      [self = Self()](const ErrorCode& ec, size_t) { self->OnWritten(ec); });
  }
  size_t WriteAtOnce(asio::const_buffer) override { return 0; }
  void ShutdownSending() override {
    ErrorCode ignored;
    socket_.shutdown(tcp::socket::shutdown_send, ignored);
  }
  void CloseSocket(bool discardsUnsent) override {
    ErrorCode ignored;
    if (discardsUnsent) socket_.set_option(tcp::socket::linger(true, 0), ignored);
    socket_.close(ignored);
  }

  tcp::socket socket_;
};

class PlainSession : public StreamSession<tcp::socket> {
 public:
  using StreamSession::StreamSession;
  void Start() override {
    ErrorCode ignored;
    socket_.non_blocking(true, ignored);
    localAddress_ = AddressText(socket_.local_endpoint(ignored).address());
    BeginServing();
  }

 protected:
  tcp::socket& Content() override { return socket_; }
  ConnectionFacts Facts() override { return {false, false, localAddress_}; }
  size_t WriteAtOnce(asio::const_buffer buffer) override {
    ErrorCode ec;  // what it is, the waiting write that follows finds out
    const size_t written = socket_.write_some(buffer, ec);
    return ec ? 0 : written;
  }

 private:
  std::string localAddress_;
};

using TlsStream = asio::ssl::stream<tcp::socket&>;

/// TLS takes some 80 KiB for a connection, so it is made when the client has said its first word:
/// those who say nothing, or half of it, cost no more than without TLS.
class TlsSession : public StreamSession<TlsStream> {
 public:
  TlsSession(std::shared_ptr<HttpShared> shared, asio::io_context& network, std::string address,
             tcp::socket socket, asio::ssl::context& context)
      : StreamSession(std::move(shared), network, std::move(address), std::move(socket)),
        context_(context) {}

  void Start() override {
    BeginHandshake();
    ReadHello(kRecordHeaderBytes);
  }

 protected:
  TlsStream& Content() override { return *tls_; }
  ConnectionFacts Facts() override { return {true, ShowsCertificate(), {}}; }

 private:
  std::shared_ptr<TlsSession> OwnSelf() { return std::static_pointer_cast<TlsSession>(Self()); }

  /// Reads on up to that length of the first record, a step at a time: memory is for what has come,
  /// not for what a client says will come.
  void ReadHello(size_t length) {
    const size_t there = hello_.size();
    hello_.resize(std::min(length, there + kHelloStepBytes));
    asio::async_read(socket_, asio::buffer(hello_) + there,
                     [self = OwnSelf()](const ErrorCode& ec, size_t) {
                       self->Guarded([&] { ec ? self->Close() : self->OnHelloRead(); });
                     });
  }

  void OnHelloRead() {
    const auto length = [this](size_t at) { return static_cast<unsigned char>(hello_[at]); };
    const size_t recordBytes = size_t{256} * length(3) + length(4);
    const bool isPlausible = hello_[0] == kHandshakeRecord && recordBytes <= kLongestRecordBytes;
    // What is no record of TLS, OpenSSL refuses in its own words.
    const bool isWhole = hello_.size() >= kRecordHeaderBytes + recordBytes;
    if (isPlausible && !isWhole) return ReadHello(kRecordHeaderBytes + recordBytes);

    tls_.emplace(socket_, context_);
    tls_->async_handshake(asio::ssl::stream_base::server, asio::buffer(hello_),
                          [self = OwnSelf()](const ErrorCode& error, size_t) {
                            self->Guarded([&] { self->OnHandshaken(error); });
                          });
  }

  void OnHandshaken(const ErrorCode& ec) {
    hello_ = std::vector<char>();  // `{}` would keep the memory
    if (ec) {
      LogNoRequest("no TLS: " + ec.message() + WhatIsWrongWithItsCertificate());
      return Close();
    }
    ErrorCode ignored;
    socket_.non_blocking(true, ignored);
    BeginServing();
  }

  std::string WhatIsWrongWithItsCertificate() {
    const long verdict = SSL_get_verify_result(tls_->native_handle());
    if (verdict == X509_V_OK) return {};
    return std::string(", ") + X509_verify_cert_error_string(verdict);
  }

  /// The handshake has verified it: with one that is not good there would be no session.
  bool ShowsCertificate() {
    SSL* const ssl = tls_->native_handle();
    X509* const certificate = SSL_get_peer_certificate(ssl);
    X509_free(certificate);
    return certificate != nullptr && SSL_get_verify_result(ssl) == X509_V_OK;
  }

  asio::ssl::context& context_;
  std::vector<char> hello_;
  std::optional<TlsStream> tls_;
};

}  // namespace

std::string AddressText(const asio::ip::address& address) {
  if (!address.is_v6() || !address.to_v6().is_v4_mapped()) return address.to_string();
  return asio::ip::make_address_v4(asio::ip::v4_mapped, address.to_v6()).to_string();
}

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
