#pragma once

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
  std::vector<std::string> headers;
  std::string body;
  /// Added to the Content-Length that is told: a lie for tests of broken transfers.
  int lengthOffset = 0;
};

/// An HTTP/1.1 server on a free port of the loopback interface. It answers one request at a time
/// and closes each connection after its answer. `answer` runs on the server's thread.
class TestHttpServer {
 public:
  using Answerer = std::function<TestHttpAnswer(const TestHttpRequest&)>;

  explicit TestHttpServer(Answerer answer);
  ~TestHttpServer();

  /// "http://127.0.0.1:port" followed by `target`.
  std::string Url(const std::string& target) const;
  std::string HostAndPort() const;

 private:
  struct Implementation;
  std::unique_ptr<Implementation> implementation_;
};
