#include "agent/libZel/platform/posix/system_bus.h"

#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>

#include "agent/libZel/user_sessions.h"
#include "tests/agent/temporary_directory.h"

// What answers at a bus is a matter of the system tests: no test of this program knows the
// machine's own one.

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;
using testing::HasSubstr;

namespace {

void SetBus(const std::string& address) {
  ::setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1);
}

void SetNoBus() {
  SetBus("unix:path=/nonexistent/zel-no-bus");
}

class WithoutBus : public testing::Environment {
  void SetUp() override { SetNoBus(); }
};

[[maybe_unused]] const auto* const kWithoutBus = testing::AddGlobalTestEnvironment(new WithoutBus);

/// A bus that takes connections and says nothing.
class SilentBus {
 public:
  SilentBus() : socket_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const std::string path = directory_.Native("bus");
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    EXPECT_EQ(::bind(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(::listen(socket_, 8), 0);
    SetBus("unix:path=" + path);
  }
  ~SilentBus() {
    SetNoBus();
    ::close(socket_);
  }
  SilentBus(const SilentBus&) = delete;
  SilentBus& operator=(const SilentBus&) = delete;

 private:
  const TemporaryDirectory directory_;
  const int socket_;
};

}  // namespace

TEST(SystemBus, TellsThatItIsNotThere) {
  SystemBus bus(seconds(10));
  EXPECT_FALSE(bus);
  EXPECT_THAT(bus.Error(), HasSubstr("No such file"));
  BusReply reply = bus.Call({"org.example", "/org/example", "org.example.Some", "Thing"},
                            {true, uint32_t{3}, "text"});
  EXPECT_FALSE(reply);
  EXPECT_EQ(reply.Error(), bus.Error());
  EXPECT_EQ(reply.ErrorName(), "");
  EXPECT_FALSE(reply.ReadText());
  EXPECT_FALSE(reply.ReadNumber());
  EXPECT_FALSE(reply.ReadBool());
  EXPECT_FALSE(reply.Enter('a', "s"));
  EXPECT_FALSE(reply.Exit());
  EXPECT_FALSE(reply.ReadProperties());
}

TEST(SystemBus, IsWaitedForNoLongerThanItShould) {
  const SilentBus silent;
  const auto start = steady_clock::now();
  const SystemBus bus(milliseconds(100));
  EXPECT_FALSE(bus);
  EXPECT_THAT(bus.Error(), HasSubstr("timed out"));
  EXPECT_GE(steady_clock::now() - start, milliseconds(100));
  EXPECT_LT(steady_clock::now() - start, seconds(20));
}

TEST(UserSessionsOnPosix, DoNotDependOnABus) {
  const SilentBus silent;
  const auto start = steady_clock::now();
  UserSessions();
  EXPECT_GE(steady_clock::now() - start, seconds(2));
  EXPECT_LT(steady_clock::now() - start, seconds(20));
}
