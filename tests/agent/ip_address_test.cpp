#include "libZel/ip_address.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "tests/agent/library_log.h"

namespace {

using testing::HasSubstr;

TEST(IpAddress, IsZeroAtFirst) {
  EXPECT_EQ(IpAddress().GetAsInt32(), 0u);
}

TEST(IpAddress, TakesFourNumbers) {
  const struct {
    const char* text;
    uint32_t address;
  } cases[] = {{"10.0.0.5", 0x0A000005},     {"0.0.0.0", 0},
               {"1.2.3.4", 0x01020304},      {"255.255.255.255", 0xFFFFFFFF},
               {"192.168.1.20", 0xC0A80114}, {"127.0.0.1", 0x7F000001}};
  for (const auto& one : cases) {
    IpAddress address;
    EXPECT_TRUE(address.SetTo(one.text)) << one.text;
    EXPECT_EQ(address.GetAsInt32(), one.address) << one.text;
  }
}

TEST(IpAddress, TakesNothingElseAndStaysAsItWas) {
  for (const char* const text : {"",
                                 ".",
                                 "...",
                                 "1",
                                 "1.2",
                                 "1.2.3",
                                 "1.2.3.",
                                 ".1.2.3",
                                 "1..2.3",
                                 "1.2.3.4.",
                                 "1.2.3.4.5",
                                 " 1.2.3.4",
                                 "1.2.3.4 ",
                                 "1. 2.3.4",
                                 "1.2.3.4\n",
                                 "256.1.1.1",
                                 "1.1.1.256",
                                 "1.2.3.1000",
                                 "01.2.3.4",
                                 "1.2.3.04",
                                 "00.0.0.0",
                                 "010.0.0.1",
                                 "0x7F.0.0.1",
                                 "0x7F000001",
                                 "2130706433",
                                 "-1.2.3.4",
                                 "+1.2.3.4",
                                 "1.2.3.4/8",
                                 "1.2.3.4:80",
                                 "a.b.c.d",
                                 "host",
                                 "::1",
                                 "[::1]",
                                 "1,2,3,4",
                                 "4294967297.0.0.1",
                                 "1.2.3.\xD9\xA1"}) {
    IpAddress address;
    ASSERT_TRUE(address.SetTo("10.0.0.5"));
    EXPECT_FALSE(address.SetTo(text)) << text;
    EXPECT_EQ(address.GetAsInt32(), 0x0A000005u) << text;
  }
  IpAddress address;
  EXPECT_FALSE(address.SetTo(ZelString(std::string_view("1.2.3.4\0", 8))));
  EXPECT_FALSE(address.SetTo(ZelString(std::string(10'000, '1'))));
}

TEST(IpAddress, FindsAHostByItsName) {
  IpAddress address;
  EXPECT_TRUE(address.SetToHostName("localhost"));
  EXPECT_EQ(address.GetAsInt32() >> 24, 0x7Fu);
  EXPECT_TRUE(address.SetToHostName("10.0.0.5"));
  EXPECT_EQ(address.GetAsInt32(), 0x0A000005u);
}

TEST(IpAddress, StaysAsItWasWhenThereIsNoSuchHost) {
  LibraryLogText log;
  IpAddress address;
  ASSERT_TRUE(address.SetTo("10.0.0.5"));
  for (const char* const name : {"", "::1", "a host", "host.invalid.", "010.0.0.1", "127.1"}) {
    EXPECT_FALSE(address.SetToHostName(name)) << name;
    EXPECT_EQ(address.GetAsInt32(), 0x0A000005u) << name;
  }
  EXPECT_THAT(log.Text(), HasSubstr("There is no address for the host \"host.invalid.\": "));
}

}  // namespace
