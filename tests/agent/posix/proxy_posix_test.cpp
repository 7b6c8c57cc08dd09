#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <future>
#include <stdexcept>

#include "libZel/proxy_client.h"
#include "tests/agent/test_proxy.h"

using namespace proxy_protocol;
using testing::HasSubstr;

namespace {

// A socket in the file system whose owner has gone without removing it.
void LeaveStaleSocket(const std::string& path) {
  const int socket = ::socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  ASSERT_EQ(::bind(socket, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ::close(socket);
}

std::string WhyNotListen(const std::string& path) {
  try {
    Listen(path, std::make_shared<StopSignal>());
    return "";
  } catch (const std::runtime_error& error) {
    return error.what();
  }
}

// Whether a server ends by itself after what is done to its socket, before a deadline that no
// healthy machine needs.
bool EndsAfter(const std::function<void(const std::string& path)>& change) {
  const TestPipe pipe;
  const auto stop = std::make_shared<StopSignal>();
  ProxyServer server(
      Listen(pipe.Name(), stop, std::chrono::milliseconds(1)), stop,
      HandlerCaller::Factory([](const Message& request) { return ReplyTo(request); }),
      [](const std::string&) {});
  const auto running = std::async(std::launch::async, [&] { server.Run(); });
  change(pipe.Name());
  const bool hasEnded = running.wait_for(std::chrono::seconds(60)) == std::future_status::ready;
  stop->Raise();
  return hasEnded;
}

bool CanInitialise(const std::string& path) {
  XmlProxyClient client;
  return client.Initialise(path, 10000, XmlProxyClient::kUserSession);
}

}  // namespace

TEST(ProxySocket, IsForItsOwnerAlone) {
  const TestProxy proxy;
  struct stat status {};
  ASSERT_EQ(::lstat(proxy.Pipe().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode, S_IFSOCK | mode_t{0600});
}

TEST(ProxySocket, TakesTheUmaskForNothing) {
  const mode_t before = ::umask(0);
  {
    const TestProxy proxy;
    struct stat status {};
    ASSERT_EQ(::lstat(proxy.Pipe().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, mode_t{0600});
  }
  ::umask(before);
}

TEST(ProxySocket, LeavesNothingBehind) {
  const TemporaryDirectory directory;
  Listen(directory.Native("pipe"), std::make_shared<StopSignal>());
  EXPECT_EQ(directory.CountEntries(), 0u);
}

TEST(ProxySocket, TakesThePlaceOfOneThatWasLeftBehind) {
  const TemporaryDirectory directory;
  const std::string path = directory.Native("pipe");
  LeaveStaleSocket(path);
  EXPECT_FALSE(CanInitialise(path));
  EXPECT_EQ(WhyNotListen(path), "");
}

TEST(ProxySocket, DoesNotTakeThePlaceOfAnythingElse) {
  const TemporaryDirectory directory;
  const std::string path = directory.Native("pipe");
  WriteFile(path, "precious");
  EXPECT_THAT(WhyNotListen(path), HasSubstr("something else stands there"));
  EXPECT_EQ(ReadFile(path), "precious");
  EXPECT_FALSE(CanInitialise(path));

  const std::string link = directory.Native("link");
  std::filesystem::create_symlink(path, link);
  EXPECT_THAT(WhyNotListen(link), HasSubstr("something else stands there"));
  EXPECT_EQ(directory.CountEntries(), 2u);
}

TEST(ProxySocket, RefusesNamesThatAreNoPlaces) {
  EXPECT_THAT(WhyNotListen("relative"), HasSubstr("no full path"));
  EXPECT_THAT(WhyNotListen("/tmp/" + std::string(200, 'x')), HasSubstr("too long"));
  EXPECT_THAT(WhyNotListen("/no/such/directory/pipe"), HasSubstr("No such file"));
}

TEST(ProxySocket, IsNotFollowedThroughALink) {
  const TestProxy proxy;
  const TemporaryDirectory directory;
  std::filesystem::create_symlink(proxy.Pipe(), directory.Native("link"));
  EXPECT_FALSE(CanInitialise(directory.Native("link")));
}

TEST(ProxyServer, EndsWhenItsSocketHasGone) {
  EXPECT_TRUE(EndsAfter([](const std::string& path) { std::filesystem::remove(path); }));
  EXPECT_TRUE(EndsAfter([](const std::string& path) {
    std::filesystem::remove_all(std::filesystem::path(path).parent_path());
  })) << "with its directory, as at the end of a session";
  EXPECT_TRUE(EndsAfter([](const std::string& path) {
    std::filesystem::rename(path, path + ".away");
    WriteFile(path, "another file");
  }));
}

TEST(ProxyServer, LeavesItsSuccessorAlone) {
  const TestPipe pipe;
  const std::string lock = pipe.Name() + ".lock";
  const auto stop = std::make_shared<StopSignal>();
  std::unique_ptr<Listener> first = Listen(pipe.Name(), stop, std::chrono::milliseconds(1));
  std::filesystem::remove(pipe.Name());
  std::filesystem::remove(lock);
  const std::unique_ptr<Listener> second = Listen(pipe.Name(), stop);
  EXPECT_EQ(first->Accept().result.status, Result::Status::kClosed);
  first.reset();
  EXPECT_TRUE(std::filesystem::is_socket(pipe.Name()));
  EXPECT_TRUE(std::filesystem::exists(lock));
}

TEST(ProxySocket, BelongsToItsListener) {
  const TestProxy proxy;
  ASSERT_EQ(::chown(proxy.Pipe().c_str(), 12345, 12345), 0) << "needs root";
  EXPECT_FALSE(CanInitialise(proxy.Pipe()));
  ASSERT_EQ(::chown(proxy.Pipe().c_str(), 0, 0), 0);
  EXPECT_TRUE(CanInitialise(proxy.Pipe()));
}

TEST(ProxyDefaultPipe, LiesInTheRuntimeDirectory) {
  const TemporaryDirectory directory;
  ASSERT_EQ(::setenv("XDG_RUNTIME_DIR", directory.Native().c_str(), 1), 0);
  ::chmod(directory.Native().c_str(), 0700);
  EXPECT_EQ(DefaultPipe(), directory.Native() / "zelproxy.sock");
  ::chmod(directory.Native().c_str(), 0777);
  EXPECT_THROW(DefaultPipe(), std::runtime_error) << "others may write it";
  ASSERT_EQ(::setenv("XDG_RUNTIME_DIR", "/no/such/directory", 1), 0);
  EXPECT_THROW(DefaultPipe(), std::runtime_error);
  ::unsetenv("XDG_RUNTIME_DIR");
}
