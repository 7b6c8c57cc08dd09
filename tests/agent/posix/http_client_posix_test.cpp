// The HTTP client against a server of other make: nginx, which stores what it gets with PUT.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/asio.hpp>
#include <chrono>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <thread>

#include "agent/libZel/security_context.h"
#include "libZel/http.h"
#include "tests/agent/temporary_directory.h"
#include "tests/agent/test_certificates.h"

namespace fs = std::filesystem;
namespace asio = boost::asio;
using asio::ip::tcp;

namespace {

constexpr std::chrono::seconds kLongestStart{20};

uint16_t FreePort() {
  asio::io_context context;
  return tcp::acceptor(context, {asio::ip::address_v4::loopback(), 0}).local_endpoint().port();
}

/// nginx over plain HTTP and over TLS; ends with the object.
class Nginx {
 public:
  Nginx(const fs::path& directory, const TestAuthority& authority) : store(directory / "store") {
    fs::create_directory(store);
    // Its workers may run as another user.
    fs::permissions(directory, fs::perms::all);
    fs::permissions(store, fs::perms::all);
    authority.Issue("IP:127.0.0.1", directory / "nginx.pem", directory / "nginx.key");
    const std::string at = directory.string();
    WriteFile(directory / "nginx.conf",
              "daemon off; master_process off; worker_processes 1; pid " + at + "/pid; error_log " +
                  at + "/error.log;\nevents {}\nhttp {\n access_log off;\n" +
                  " client_body_temp_path " + at + "/body; proxy_temp_path " + at +
                  "/1; fastcgi_temp_path " + at + "/2; uwsgi_temp_path " + at +
                  "/3; scgi_temp_path " + at + "/4;\n server {\n  listen 127.0.0.1:" +
                  std::to_string(plainPort) + "; listen 127.0.0.1:" + std::to_string(tlsPort) +
                  " ssl;\n  ssl_certificate " + at + "/nginx.pem; ssl_certificate_key " + at +
                  "/nginx.key;\n  client_max_body_size 64m;\n  location / { root " +
                  store.string() + "; dav_methods PUT; create_full_put_path on; }\n }\n}\n");
    Start(directory / "nginx.conf");
  }
  ~Nginx() {
    kill(process_, SIGTERM);
    waitpid(process_, nullptr, 0);
  }
  Nginx(const Nginx&) = delete;
  Nginx& operator=(const Nginx&) = delete;

  const fs::path store;
  const uint16_t plainPort = FreePort();
  const uint16_t tlsPort = FreePort();

 private:
  void Start(const fs::path& config) {
    const std::string name = config.string();
    process_ = fork();
    if (process_ == 0) {
      execl("/usr/sbin/nginx", "nginx", "-c", name.c_str(), static_cast<char*>(nullptr));
      _exit(127);
    }
    const auto end = std::chrono::steady_clock::now() + kLongestStart;
    while (!Answers()) {
      const bool hasEnded = waitpid(process_, nullptr, WNOHANG) != 0;
      if (hasEnded || std::chrono::steady_clock::now() > end) {
        throw std::runtime_error("nginx does not run: " +
                                 ReadFile(config.parent_path() / "error.log"));
      }
      std::this_thread::yield();
    }
  }
  bool Answers() const {
    asio::io_context context;
    tcp::socket socket(context);
    boost::system::error_code error;
    socket.connect({asio::ip::address_v4::loopback(), tlsPort}, error);
    return !error;
  }

  pid_t process_ = -1;
};

class HttpClientAndNginx : public testing::Test {
 protected:
  HttpClientAndNginx() {
    fleet_.WriteCertificate(directory_.Native("ca.pem"));
    context_.authorityFile = directory_.Native("ca.pem");
  }

  int Send(HttpClient& client, uint16_t port, const ZelString& resource) {
    client.SetAuthentification("sender", "password");
    HttpFileMessage request;
    request.SetMethod(kHttpPut);
    request.SetResourcePath(resource);
    request.SetTo(directory_ / "file", "");
    return client.SendAndRecv(nullptr, "127.0.0.1", request, answer_, port, 1, nullptr);
  }

  TemporaryDirectory directory_;
  TestAuthority fleet_{"Fleet"};
  SslContext context_;
  HttpMessage answer_{0};
};

TEST_F(HttpClientAndNginx, StoreTheSameFileUnderTheSameName) {
  const Nginx nginx(directory_.Native(), fleet_);
  HttpClient plain(~0U, ~0U);
  HttpClient tls(~0U, ~0U);
  tls.EnableSsl(&context_);
  std::string content;
  for (int i = 0; content.size() < 20'000'000; ++i) content += std::to_string(i) + '\n';
  for (const size_t size : {size_t{0}, size_t{1000}, content.size()}) {
    WriteFile(directory_.Native("file"), content.substr(0, size));
    EXPECT_EQ(Send(plain, nginx.plainPort, "/backup1/a b%+#\xC3\xBC.zip"), 0) << size;
    EXPECT_TRUE(ReadFile(nginx.store / "backup1/a b%+#\xC3\xBC.zip") == content.substr(0, size));
    EXPECT_EQ(Send(tls, nginx.tlsPort, "/backup2/b"), 0) << size;
    EXPECT_TRUE(ReadFile(nginx.store / "backup2/b") == content.substr(0, size));
  }
  EXPECT_EQ(answer_.GetStatus(), 204);
}

TEST_F(HttpClientAndNginx, AgreeThatTheFileIsTooLarge) {
  const Nginx nginx(directory_.Native(), fleet_);
  WriteFile(directory_.Native("file"), "");
  fs::resize_file(directory_.Native("file"), uintmax_t{65} << 20);
  HttpClient plain(~0U, ~0U);
  EXPECT_EQ(Send(plain, nginx.plainPort, "/x"), 413);
  HttpClient tls(~0U, ~0U);
  tls.EnableSsl(&context_);
  EXPECT_EQ(Send(tls, nginx.tlsPort, "/x"), 413);
  EXPECT_TRUE(fs::is_empty(nginx.store));
}

TEST_F(HttpClientAndNginx, DoNotMeetWithoutTheRightAuthority) {
  const Nginx nginx(directory_.Native(), TestAuthority("Other"));
  WriteFile(directory_.Native("file"), "content");
  HttpClient tls(~0U, ~0U);
  tls.EnableSsl(&context_);
  EXPECT_EQ(Send(tls, nginx.tlsPort, "/x"), 60);
  EXPECT_TRUE(fs::is_empty(nginx.store));
}

TEST_F(HttpClientAndNginx, DoNotTakeAPipeForAFile) {
  const Nginx nginx(directory_.Native(), fleet_);
  ASSERT_EQ(mkfifo(directory_.Native("file").c_str(), 0600), 0);
  HttpClient plain(~0U, ~0U);
  EXPECT_EQ(Send(plain, nginx.plainPort, "/x"), 99);
  EXPECT_TRUE(fs::is_empty(nginx.store));
}

}  // namespace
