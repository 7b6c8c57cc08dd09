#include <gtest/gtest.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <optional>
#include <string>

#include "libZel/curl_get.h"
#include "tests/agent/test_http_server.h"

namespace asio = boost::asio;
using asio::ip::tcp;

namespace {

bool Get(const std::string& url, long timeoutSeconds) {
  long long received = 0;
  return CurlAdvancedGet(url, "", "", "", "", "", 0, timeoutSeconds, received, true, nullptr,
                         nullptr) != 0;
}

std::ptrdiff_t OpenFiles() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                       std::filesystem::directory_iterator());
}

/// Sets a variable of the environment while it lives.
class Variable {
 public:
  Variable(const char* name, const std::string& value) : name_(name) {
    if (const char* const before = std::getenv(name)) before_ = before;
    setenv(name, value.c_str(), 1);
  }
  ~Variable() {
    if (before_) {
      setenv(name_, before_->c_str(), 1);
    } else {
      unsetenv(name_);
    }
  }
  Variable(const Variable&) = delete;
  Variable& operator=(const Variable&) = delete;

 private:
  const char* const name_;
  std::optional<std::string> before_;
};

TEST(CurlAdvancedGet, LeavesNothingOpen) {
  TestHttpServer server([](const TestHttpRequest&) { return TestHttpAnswer{404, {}, "x", 0}; });
  asio::io_context context;
  // The system takes connections for it, and nobody ever answers.
  const tcp::acceptor silent(context, tcp::endpoint(asio::ip::address_v4::loopback(), 0));
  const std::string silentUrl =
      "http://127.0.0.1:" + std::to_string(silent.local_endpoint().port()) + "/";
  EXPECT_FALSE(Get(server.Url("/"), 30));
  const auto before = OpenFiles();
  for (int i = 0; i < 20; ++i) EXPECT_FALSE(Get(server.Url("/"), 30));
  EXPECT_FALSE(Get(silentUrl, 1));
  EXPECT_FALSE(Get("http://127.0.0.1:1/", 30));
  // The server of the test may still be about to close its side.
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (OpenFiles() > before && std::chrono::steady_clock::now() < end) continue;
  EXPECT_LE(OpenFiles(), before);
}

TEST(CurlAdvancedGet, TakesTheProxyOfTheEnvironment) {
  std::string target;
  TestHttpServer proxy([&](const TestHttpRequest& request) {
    target = request.target;
    return TestHttpAnswer{200, {}, "x", 0};
  });
  const Variable variable("http_proxy", proxy.Url(""));
  EXPECT_TRUE(Get("http://far.invalid/", 30));
  EXPECT_EQ(target, "http://far.invalid/");
  const Variable except("no_proxy", "127.0.0.1");
  TestHttpServer server([](const TestHttpRequest&) { return TestHttpAnswer{200, {}, "x", 0}; });
  target.clear();
  EXPECT_TRUE(Get(server.Url("/"), 30));
  EXPECT_EQ(target, "");
}

}  // namespace
