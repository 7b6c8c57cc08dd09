// Echo requests where the system does as it is told: in network namespaces of the tests' own.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "agent/libZel/network/icmp_echo.h"
#include "agent/libZel/platform/posix/icmp_message.h"
#include "libZel/ping.h"
#include "libZel/socket.h"
#include "tests/agent/library_log.h"
#include "tests/agent/posix/own_network.h"
#include "windows_api.h"

using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace {

constexpr uid_t kNobody = 65534;
constexpr milliseconds kLongLimit{20'000};
constexpr milliseconds kShortLimit{100};

HostAddress Address(const std::string& text) {
  const auto found = LookUpHost(text, AddressKind::kAny, kLongLimit);
  EXPECT_EQ(found.size(), 1u) << text;
  return found.empty() ? HostAddress() : found[0];
}

void AllowEchoRequestsFor(gid_t group) {
  const std::string number = std::to_string(group);
  std::ofstream("/proc/sys/net/ipv4/ping_group_range") << number + " " + number << std::flush;
}

void BecomeNobody() {
  if (setgid(kNobody) != 0 || setuid(kNobody) != 0) throw std::runtime_error("not root");
}

TEST(SendEcho, IsAnsweredOverBothProtocols) {
  EXPECT_EQ(InChild([] {
              LeaveNetwork();
              const bool v4 = SendEcho(Address("127.0.0.1"), kLongLimit) == EchoAnswer::kCame;
              const bool v6 = SendEcho(Address("::1"), kLongLimit) == EchoAnswer::kCame;
              return (v4 ? 1 : 0) + (v6 ? 2 : 0);
            }),
            3);
}

TEST(SendEcho, IsAnsweredToWhoMayHaveNoRawSockets) {
  EXPECT_EQ(InChild([] {
              LeaveNetwork();
              AllowEchoRequestsFor(kNobody);
              BecomeNobody();
              const bool v4 = SendEcho(Address("127.0.0.1"), kLongLimit) == EchoAnswer::kCame;
              const bool v6 = SendEcho(Address("::1"), kLongLimit) == EchoAnswer::kCame;
              return (v4 ? 1 : 0) + (v6 ? 2 : 0);
            }),
            3);
}

TEST(SendEcho, IsRefusedToWhoMaySendNone) {
  EXPECT_EQ(InChild([] {
              LeaveNetwork();
              LibraryLogText log;
              if (seteuid(kNobody) != 0) return 1;
              const EchoAnswer answer = SendEcho(Address("127.0.0.1"), kLongLimit);
              const bool ping = PingICMP("127.0.0.1");
              if (seteuid(0) != 0 || answer != EchoAnswer::kRefused || ping) return 2;
              const bool isSaid = log.Text().find(
                                      "The system allows no echo requests to "
                                      "127.0.0.1: Operation not permitted") != std::string::npos;
              if (!isSaid) return 3;
              return log.Text().find("did not answer") == std::string::npos ? 0 : 4;
            }),
            0);
}

TEST(SendEcho, WaitsNoLongerThanAskedWhenNobodyAnswers) {
  EXPECT_EQ(InChild([] {
              MakeQuietInterface();
              for (const char* const host : {"10.9.0.2", "fd00:9::2"}) {
                const auto start = steady_clock::now();
                if (SendEcho(Address(host), kShortLimit) != EchoAnswer::kNone) return 1;
                const auto took = steady_clock::now() - start;
                if (took < kShortLimit || took > kLongLimit) return 2;
              }
              return 0;
            }),
            0);
}

TEST(SendEcho, DoesNotWaitWhereThereIsNoWay) {
  EXPECT_EQ(
      InChild([] {
        LeaveNetwork();
        LibraryLogText log;
        const auto start = steady_clock::now();
        if (SendEcho(Address("192.0.2.1"), kLongLimit) != EchoAnswer::kFailed) return 1;
        if (SendEcho(Address("2001:db8::1"), kLongLimit) != EchoAnswer::kFailed) return 2;
        if (steady_clock::now() - start > kLongLimit) return 3;
        const bool isSaid =
            log.Text().find("No echo request was sent to 192.0.2.1: Network is unreachable") !=
            std::string::npos;
        return isSaid ? 0 : 4;
      }),
      0);
}

TEST(SendEcho, IsNotKeptFromItsEndByTheAnswersOfOthers) {
  EXPECT_EQ(InChild([] {
              LeaveNetwork();
              // Nobody answers here, but answers to others come all the time.
              std::ofstream("/proc/sys/net/ipv4/icmp_echo_ignore_all") << "1" << std::flush;
              const pid_t noise = fork();
              if (noise == 0) {
                const int raw = socket(AF_INET, SOCK_RAW, IPPROTO_ICMP);
                sockaddr_in to{};
                to.sin_family = AF_INET;
                to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
                EchoRequest other;
                auto bytes = other.Bytes();
                bytes[0] = 0;
                for (;;) {
                  sendto(raw, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&to),
                         sizeof to);
                }
              }
              const auto start = steady_clock::now();
              const EchoAnswer answer = SendEcho(Address("127.0.0.1"), kShortLimit);
              const auto took = steady_clock::now() - start;
              kill(noise, SIGKILL);
              waitpid(noise, nullptr, 0);
              if (answer != EchoAnswer::kNone) return 1;
              return took >= kShortLimit && took < kLongLimit ? 0 : 2;
            }),
            0);
}

TEST(UdpSocket, ReachesEverybodyOfASubnet) {
  EXPECT_EQ(InChild([] {
              MakeQuietInterface();
              const int packets = socket(AF_INET, SOCK_DGRAM, 0);
              sockaddr_in to{};
              to.sin_family = AF_INET;
              to.sin_port = htons(7);
              to.sin_addr.s_addr = htonl(0x0A0900FF);
              // The broadcast address reaches the sender, too.
              if (bind(packets, reinterpret_cast<sockaddr*>(&to), sizeof to) != 0) return 1;
              const auto sender = SocketFactory::CreateUdp();
              char data[] = "magic";
              if (sender->SendTo(to, data, 5) != -1) return 2;
              if (!sender->SetOption(32, 1) || sender->SendTo(to, data, 5) != 5) return 3;
              char received[8] = {};
              if (recv(packets, received, sizeof received, 0) != 5) return 4;
              return std::strcmp(received, "magic") == 0 ? 0 : 5;
            }),
            0);
}

EchoRequest Example(bool isV6) {
  EchoRequest request{.isV6 = isV6, .identifier = 0x1234, .sequence = 0x5678, .payload = {}};
  for (size_t i = 0; i < request.payload.size(); ++i) request.payload[i] = uint8_t(i * 7);
  return request;
}

TEST(EchoRequest, HasAChecksumOverIpv4) {
  const auto bytes = Example(false).Bytes();
  uint32_t sum = 0;
  for (size_t i = 0; i < bytes.size(); i += 2) sum += uint32_t{bytes[i]} << 8 | bytes[i + 1];
  EXPECT_EQ((sum & 0xFFFF) + (sum >> 16), 0xFFFFu);
  EXPECT_EQ(bytes[0], 8);
  EXPECT_EQ(Example(true).Bytes()[0], 128);
}

TEST(EchoRequest, IsAnsweredByItsOwnReplyAlone) {
  for (const bool isV6 : {false, true}) {
    const EchoRequest request = Example(isV6);
    auto reply = request.Bytes();
    EXPECT_FALSE(request.IsAnsweredBy(reply));
    reply[0] = isV6 ? 129 : 0;
    EXPECT_TRUE(request.IsAnsweredBy(reply));
    for (size_t i = 0; i < reply.size(); ++i) {
      auto other = reply;
      other[i] ^= 1;
      const bool isChecksum = i == 2 || i == 3;
      EXPECT_EQ(request.IsAnsweredBy(other), isChecksum) << i;
    }
    for (size_t length = 0; length < reply.size(); ++length) {
      EXPECT_FALSE(request.IsAnsweredBy({reply.data(), length})) << length;
    }
    std::vector<uint8_t> longer(reply.begin(), reply.end());
    longer.push_back(0);
    EXPECT_FALSE(request.IsAnsweredBy(longer));
  }
}

TEST(BehindIpv4Header, TakesNoHeaderThatIsNone) {
  std::vector<uint8_t> packet(30, 9);
  packet[0] = 0x45;
  EXPECT_EQ(BehindIpv4Header(packet).size(), 10u);
  packet[0] = 0x47;
  EXPECT_EQ(BehindIpv4Header(packet).size(), 2u);
  for (const uint8_t start : {0x00, 0x44, 0x48, 0x4F, 0x65, 0xF5}) {
    packet[0] = start;
    EXPECT_TRUE(BehindIpv4Header(packet).empty()) << int{start};
  }
  packet[0] = 0x45;
  EXPECT_TRUE(BehindIpv4Header({packet.data(), 19}).empty());
  EXPECT_TRUE(BehindIpv4Header({}).empty());
}

}  // namespace
