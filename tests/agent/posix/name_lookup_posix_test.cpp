// The system's own name service, where its server never answers: in a network of the test's own.

#include <gtest/gtest.h>
#include <sys/mount.h>

#include <chrono>
#include <cstdlib>
#include <stdexcept>
#include <string>

#include "agent/libZel/network/name_lookup.h"
#include "libZel/curl_get.h"
#include "tests/agent/posix/own_network.h"
#include "tests/agent/temporary_directory.h"

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

namespace {

/// The system's waits for one server sum up to this.
constexpr seconds kSystemsPatience{10};

/// From now on this process asks a server that is not there, for ten seconds each time.
void AskNobody(const TemporaryDirectory& directory) {
  MakeQuietInterface();
  Run("ip route add default via 10.9.0.2");
  const std::string file = directory.Native("resolv.conf").string();
  WriteFile(file, "nameserver 10.9.0.2\noptions timeout:5 attempts:2\n");
  if (unshare(CLONE_NEWNS) != 0) throw std::runtime_error("no namespace");
  Run("mount --make-rprivate /");
  if (mount(file.c_str(), "/etc/resolv.conf", nullptr, MS_BIND, nullptr) != 0)
    throw std::runtime_error("no mount");
}

TEST(LookUpHost, GivesUpOnASystemThatDoesNotAnswer) {
  const TemporaryDirectory directory;
  EXPECT_EQ(InChild([&] {
              AskNobody(directory);
              const auto start = steady_clock::now();
              if (!LookUpHost("host.example", AddressKind::kAny, milliseconds(100)).empty())
                return 1;
              const auto took = steady_clock::now() - start;
              if (took < milliseconds(100)) return 2;
              if (took > kSystemsPatience / 2) return 3;
              if (LookUpHost("127.0.0.1", AddressKind::kAny, milliseconds(100)).empty()) return 4;
              return 0;
            }),
            0);
}

TEST(LookUpHost, LetsTheProcessEndWhileTheSystemDoesNotAnswer) {
  const TemporaryDirectory directory;
  const auto start = steady_clock::now();
  EXPECT_EQ(InChild([&]() -> int {
              AskNobody(directory);
              LookUpHost("host.example", AddressKind::kAny, milliseconds(1));
              std::exit(7);
            }),
            7);
  EXPECT_LT(steady_clock::now() - start, kSystemsPatience / 2);
}

TEST(CurlAdvancedGet, EndsWhenTheTimeIsUpAlsoWhileANameIsLookedUp) {
  const TemporaryDirectory directory;
  EXPECT_EQ(InChild([&] {
              AskNobody(directory);
              const auto start = steady_clock::now();
              long long received = 0;
              if (CurlAdvancedGet("http://host.example/", "", "", "", "", "", 0, 1, received, true,
                                  nullptr, nullptr) != 0)
                return 1;
              return steady_clock::now() - start < kSystemsPatience / 2 ? 0 : 2;
            }),
            0);
}

}  // namespace
