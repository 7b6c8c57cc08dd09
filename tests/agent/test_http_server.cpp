#include "tests/agent/test_http_server.h"

#include <algorithm>
#include <boost/asio.hpp>
#include <boost/asio/ssl.hpp>
#include <cctype>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <sstream>
#include <thread>

namespace asio = boost::asio;
using asio::ip::tcp;

namespace {

// Names of files may be beyond ASCII, which OpenSSL's own functions would not open everywhere.
std::string Pem(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

}  // namespace

struct TestHttpServer::Implementation {
  Implementation(Answerer answer, TestHttpBehaviour behaviour)
      : answer(std::move(answer)),
        behaviour(std::move(behaviour)),
        acceptor(context, tcp::endpoint(asio::ip::address_v4::loopback(), 0)) {
    PrepareTls();
    AcceptNext();
    thread = std::thread([this] { context.run(); });
  }

  ~Implementation() {
    context.stop();
    thread.join();
  }

  void PrepareTls() {
    if (behaviour.certificateFile.empty()) return;
    tls.emplace(asio::ssl::context::tls_server);
    tls->use_certificate_chain(asio::buffer(Pem(behaviour.certificateFile)));
    tls->use_private_key(asio::buffer(Pem(behaviour.privateKeyFile)), asio::ssl::context::pem);
    if (behaviour.clientAuthorityFile.empty()) return;
    tls->set_verify_mode(asio::ssl::verify_peer | asio::ssl::verify_fail_if_no_peer_cert);
    tls->add_certificate_authority(asio::buffer(Pem(behaviour.clientAuthorityFile)));
  }

  void AcceptNext() {
    acceptor.async_accept([this](boost::system::error_code error, tcp::socket socket) {
      if (error) return;
      try {
        Accept(std::move(socket));
      } catch (const boost::system::system_error&) {
        // The client left in the middle, which is its right.
      }
      AcceptNext();
    });
  }

  void Accept(tcp::socket socket) {
    if (!tls) {
      Serve(std::make_shared<tcp::socket>(std::move(socket)));
      return;
    }
    auto stream = std::make_shared<asio::ssl::stream<tcp::socket>>(std::move(socket), *tls);
    stream->handshake(asio::ssl::stream_base::server);
    Serve(stream);
  }

  template <typename Stream>
  void Serve(std::shared_ptr<Stream> stream) {
    std::string data;
    const size_t headerSize = asio::read_until(*stream, asio::dynamic_buffer(data), "\r\n\r\n");
    TestHttpRequest request = ParseHeader(data.substr(0, headerSize));
    request.body = data.substr(headerSize);
    if (behaviour.beforeBody) behaviour.beforeBody();
    if (behaviour.body != TestHttpBehaviour::Body::kRefuse) ReadBody(stream.get(), &request);
    if (behaviour.body == TestHttpBehaviour::Body::kCut) return;
    if (behaviour.body == TestHttpBehaviour::Body::kStall) {
      held.push_back(stream);
      return;
    }
    asio::write(*stream, asio::buffer(Format(request, answer(request))));
    stream->lowest_layer().shutdown(tcp::socket::shutdown_both);
  }

  template <typename Stream>
  void ReadBody(Stream* stream, TestHttpRequest* request) {
    const auto length = request->headers.find("content-length");
    size_t size = length == request->headers.end() ? 0 : std::stoull(length->second);
    if (behaviour.body != TestHttpBehaviour::Body::kRead)
      size = std::min(size, behaviour.bodyBytes);
    if (request->headers.contains("expect")) {
      asio::write(*stream, asio::buffer(std::string("HTTP/1.1 100 Continue\r\n\r\n")));
    }
    if (request->body.size() >= size) return;
    asio::read(*stream, asio::dynamic_buffer(request->body),
               asio::transfer_exactly(size - request->body.size()));
  }

  static TestHttpRequest ParseHeader(const std::string& header) {
    TestHttpRequest request;
    std::istringstream lines(header);
    std::string line;
    std::getline(lines, line);
    std::istringstream(line) >> request.method >> request.target;
    while (std::getline(lines, line) && line != "\r") {
      const size_t colon = line.find(": ");
      if (colon == line.npos) continue;
      std::string name = line.substr(0, colon);
      std::transform(name.begin(), name.end(), name.begin(),
                     [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
      request.headers[name] = line.substr(colon + 2, line.size() - colon - 3);
    }
    return request;
  }

  static std::string Format(const TestHttpRequest& request, const TestHttpAnswer& answer) {
    std::ostringstream text;
    text << "HTTP/1.1 " << answer.status << " Answer\r\nConnection: close\r\n";
    text << "Content-Length: " << answer.body.size() + static_cast<size_t>(answer.lengthOffset)
         << "\r\n";
    for (const std::string& header : answer.headers) text << header << "\r\n";
    text << "\r\n";
    if (request.method != "HEAD") text << answer.body;
    return text.str();
  }

  Answerer answer;
  TestHttpBehaviour behaviour;
  asio::io_context context;
  std::optional<asio::ssl::context> tls;
  std::vector<std::shared_ptr<void>> held;
  tcp::acceptor acceptor;
  std::thread thread;
};

TestHttpServer::TestHttpServer(Answerer answer, TestHttpBehaviour behaviour)
    : implementation_(std::make_unique<Implementation>(std::move(answer), std::move(behaviour))) {}

TestHttpServer::~TestHttpServer() = default;

uint16_t TestHttpServer::Port() const {
  return implementation_->acceptor.local_endpoint().port();
}

std::string TestHttpServer::HostAndPort() const {
  return "127.0.0.1:" + std::to_string(Port());
}

std::string TestHttpServer::Url(const std::string& target) const {
  return "http://" + HostAndPort() + target;
}
