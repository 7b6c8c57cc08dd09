#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

struct TestHttpRequest {
  std::string method;
  std::string target;
  /// Names in lower case.
  std::map<std::string, std::string> headers;
  std::string body;
};

struct TestHttpAnswer {
  int status = 200;
  /// Whole lines, "Name: value".
  std::vector<std::string> headers = {};
  std::string body = {};
  /// Added to the Content-Length that is told: a lie for tests of broken transfers.
  int lengthOffset = 0;
};

/// What a server does other than serve every request over plain HTTP.
struct TestHttpBehaviour {
  enum class Body {
    kRead,
    /// Answers at once, instead of letting the body come.
    kRefuse,
    /// Closes the connection after `bodyBytes`.
    kCut,
    /// Reads no further than `bodyBytes` and keeps the connection open.
    kStall
  };
  Body body = Body::kRead;
  size_t bodyBytes = 0;
  /// Runs on the server's thread when the header is there and the body was not asked for.
  std::function<void()> beforeBody = {};

  /// PEM files; TLS when they are set.
  std::filesystem::path certificateFile = {};
  std::filesystem::path privateKeyFile = {};
  /// Whose certificate every client must show, when it is set.
  std::filesystem::path clientAuthorityFile = {};
};

/// An HTTP/1.1 server on a free port of the loopback interface. It answers one request at a time
/// and closes each connection after its answer. `answer` runs on the server's thread.
class TestHttpServer {
 public:
  using Answerer = std::function<TestHttpAnswer(const TestHttpRequest&)>;

  explicit TestHttpServer(Answerer answer, TestHttpBehaviour behaviour = {});
  ~TestHttpServer();

  /// "http://127.0.0.1:port" followed by `target`.
  std::string Url(const std::string& target) const;
  std::string HostAndPort() const;
  uint16_t Port() const;

 private:
  struct Implementation;
  std::unique_ptr<Implementation> implementation_;
};
