#include "tests/agent/test_http_server.h"

#include <algorithm>
#include <boost/asio.hpp>
#include <cctype>
#include <sstream>
#include <thread>

namespace asio = boost::asio;
using asio::ip::tcp;

struct TestHttpServer::Implementation {
  explicit Implementation(Answerer answer)
      : answer(std::move(answer)),
        acceptor(context, tcp::endpoint(asio::ip::address_v4::loopback(), 0)) {
    AcceptNext();
    thread = std::thread([this] { context.run(); });
  }

  ~Implementation() {
    context.stop();
    thread.join();
  }

  void AcceptNext() {
    acceptor.async_accept([this](boost::system::error_code error, tcp::socket socket) {
      if (error) return;
      try {
        Serve(std::move(socket));
      } catch (const boost::system::system_error&) {
        // The client left in the middle, which is its right.
      }
      AcceptNext();
    });
  }

  void Serve(tcp::socket socket) {
    std::string data;
    const size_t headerSize = asio::read_until(socket, asio::dynamic_buffer(data), "\r\n\r\n");
    TestHttpRequest request = ParseHeader(data.substr(0, headerSize));
    request.body = data.substr(headerSize);
    const auto length = request.headers.find("content-length");
    const size_t bodySize = length == request.headers.end() ? 0 : std::stoull(length->second);
    if (request.headers.contains("expect")) {
      asio::write(socket, asio::buffer(std::string("HTTP/1.1 100 Continue\r\n\r\n")));
    }
    if (request.body.size() < bodySize) {
      asio::read(socket, asio::dynamic_buffer(request.body),
                 asio::transfer_exactly(bodySize - request.body.size()));
    }
    asio::write(socket, asio::buffer(Format(request, answer(request))));
    socket.shutdown(tcp::socket::shutdown_both);
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
  asio::io_context context;
  tcp::acceptor acceptor;
  std::thread thread;
};

TestHttpServer::TestHttpServer(Answerer answer)
    : implementation_(std::make_unique<Implementation>(std::move(answer))) {}

TestHttpServer::~TestHttpServer() = default;

std::string TestHttpServer::HostAndPort() const {
  return "127.0.0.1:" + std::to_string(implementation_->acceptor.local_endpoint().port());
}

std::string TestHttpServer::Url(const std::string& target) const {
  return "http://" + HostAndPort() + target;
}
