#include "libZel/ping.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "agent/libZel/network/icmp_echo.h"
#include "tests/agent/library_log.h"

using std::chrono::milliseconds;

namespace {

using testing::ElementsAre;
using testing::Ge;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Le;

constexpr milliseconds kLongEchoLimit{20'000};

HostAddress Numbered(uint8_t number) {
  HostAddress address;
  address.bytes = {192, 0, 2, number};
  return address;
}

/// What `Answer` was asked, and the number that answers. Even ones say nothing, and requests to the
/// others are not sent.
std::vector<int> asked;
std::vector<milliseconds::rep> limits;
int whoAnswers = 0;

EchoAnswer Answer(const HostAddress& address, milliseconds limit) {
  asked.push_back(address.bytes[3]);
  limits.push_back(limit.count());
  if (address.bytes[3] == whoAnswers) return EchoAnswer::kCame;
  if (address.bytes[3] % 2 == 0) return EchoAnswer::kNone;
  return address.bytes[3] == 1 ? EchoAnswer::kFailed : EchoAnswer::kRefused;
}

bool PingNumbers(int count, int answering) {
  asked.clear();
  limits.clear();
  whoAnswers = answering;
  std::vector<HostAddress> addresses;
  for (int i = 1; i <= count; ++i) addresses.push_back(Numbered(static_cast<uint8_t>(i)));
  return PingAny("pc-1", addresses, milliseconds(4000), Answer);
}

TEST(PingAny, AsksOneAddressAfterTheOtherUntilOneAnswers) {
  EXPECT_TRUE(PingNumbers(6, 3));
  EXPECT_THAT(asked, ElementsAre(1, 2, 3));
  EXPECT_FALSE(PingNumbers(6, 5));
  EXPECT_THAT(asked, ElementsAre(1, 2, 3, 4));
  EXPECT_FALSE(PingNumbers(0, 1));
  EXPECT_THAT(asked, IsEmpty());
}

TEST(PingAny, GivesEachAddressItsShareOfTheTime) {
  PingNumbers(1, 0);
  EXPECT_THAT(limits, ElementsAre(testing::AllOf(Ge(3900), Le(4000))));
  PingNumbers(2, 0);
  ASSERT_EQ(limits.size(), 2u);
  EXPECT_LE(limits[0], 2000);
  // The first one failed at once, so the second one has all that is left.
  EXPECT_GE(limits[1], 3900);
}

TEST(PingAny, SaysWhoDidNotAnswer) {
  LibraryLogText log;
  PingNumbers(3, 3);
  PingNumbers(0, 1);
  EXPECT_EQ(log.Text(), "");
  PingNumbers(5, 0);
  EXPECT_THAT(log.Text(), HasSubstr("The host \"pc-1\" did not answer: no echo reply from "
                                    "192.0.2.2, 192.0.2.4 in time"));
}

TEST(PingAny, LeavesItAtTheReasonWhereNoRequestWasSent) {
  LibraryLogText log;
  asked.clear();
  EXPECT_FALSE(PingAny("pc-1", {Numbered(1), Numbered(3)}, milliseconds(4000), Answer));
  EXPECT_THAT(asked, ElementsAre(1, 3));
  EXPECT_EQ(log.Text(), "");
}

TEST(PingICMP, IsAnsweredByThisMachine) {
  for (const char* const host : {"127.0.0.1", "localhost"}) EXPECT_TRUE(PingICMP(host)) << host;
}

TEST(PingICMP, IsAnsweredByManyAtOnce) {
  std::vector<std::thread> threads;
  std::atomic<int> answered{0};
  for (int i = 0; i < 16; ++i) {
    threads.emplace_back([&] { answered += PingICMP("127.0.0.1") ? 1 : 0; });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(answered, 16);
}

TEST(PingICMP, IsNotAnsweredByWhatIsNoHost) {
  LibraryLogText log;
  for (const char* const host : {"", "host.invalid.", "127.1", "1.2.3.4.5", " 127.0.0.1"}) {
    EXPECT_FALSE(PingICMP(host)) << host;
  }
  EXPECT_FALSE(PingICMP(std::string("127.0.0.1\0", 10)));
  EXPECT_FALSE(PingICMP(std::string(10'000, 'a')));
  EXPECT_THAT(log.Text(), HasSubstr("There is no address for the host \"host.invalid.\": "));
}

}  // namespace
