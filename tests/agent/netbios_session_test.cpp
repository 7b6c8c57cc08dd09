#include "agent/libZel/smb/netbios_session.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "tests/agent/memory_stream.h"
#include "tests/agent/smb_test.h"

namespace {

using smb::Bytes;
using smb::EncodeNetbiosName;
using smb::NetbiosSession;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr const char* kNoneOfASession = "the server's answer is none of a NetBIOS session";
constexpr const char* kClosed = "receiving: the other side closed the connection";

Bytes BytesOf(std::string_view text) {
  return Bytes(text.begin(), text.end());
}

/// What a request says of these answers.
std::string RequestWith(Bytes answers) {
  MemoryStream stream(std::move(answers));
  try {
    NetbiosSession(stream, false).Request("*SMBSERVER", kNever);
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  return "granted";
}

/// What comes of waiting for a message among these answers.
std::string ReceiveWith(Bytes answers, bool isDirect = false) {
  MemoryStream stream(std::move(answers));
  try {
    const Bytes message = NetbiosSession(stream, isDirect).Receive(kNever);
    return std::string(message.begin(), message.end());
  } catch (const std::runtime_error& error) {
    return error.what();
  }
}

TEST(NetbiosSession, EncodesNamesByHalves) {
  // "*SMBSERVER" as RFC 1001 has it, with the service 0x20.
  const Bytes encoded = EncodeNetbiosName("*SMBSERVER", 0x20);
  ASSERT_EQ(34u, encoded.size());
  EXPECT_EQ(BytesOf(" CKFDENECFDEFFCFGEFFCCACACACACACA"),
            Bytes(encoded.begin(), encoded.end() - 1));
  EXPECT_EQ(0, encoded.back());
}

TEST(NetbiosSession, WritesNamesInCapitals) {
  EXPECT_EQ(EncodeNetbiosName("FILES1", 0x20), EncodeNetbiosName("files1", 0x20));
}

TEST(NetbiosSession, RefusesNamesThatAreNone) {
  EXPECT_THROW(EncodeNetbiosName("", 0x20), std::runtime_error);
  EXPECT_THROW(EncodeNetbiosName("SIXTEEN-LETTERS-", 0x20), std::runtime_error);
  EXPECT_EQ(34u, EncodeNetbiosName("FIFTEEN-LETTERS", 0x20).size());
}

TEST(NetbiosSession, AsksWithBothNames) {
  MemoryStream stream(Bytes{0x82, 0, 0, 0});
  NetbiosSession(stream, false).Request("*SMBSERVER", kNever);
  const Bytes& request = stream.Written();
  ASSERT_EQ(4u + 34 + 34, request.size());
  EXPECT_THAT(Bytes(request.begin(), request.begin() + 4), ElementsAre(0x81, 0, 0, 68));
  EXPECT_EQ(EncodeNetbiosName("*SMBSERVER", 0x20),
            Bytes(request.begin() + 4, request.begin() + 38));
  // The calling name is that of a workstation.
  EXPECT_EQ(BytesOf("AA"), Bytes(request.end() - 3, request.end() - 1));
}

TEST(NetbiosSession, SkipsKeepAlivesBeforeTheGrant) {
  EXPECT_EQ("granted", RequestWith({0x85, 0, 0, 0, 0x85, 0, 0, 0, 0x82, 0, 0, 0}));
}

TEST(NetbiosSession, GivesUpOnKeepAlivesWithoutAnEnd) {
  Bytes enough(size_t{4} * 16);
  for (size_t i = 0; i < enough.size(); i += 4) enough[i] = 0x85;
  Bytes tooMany = enough;
  tooMany.insert(tooMany.end(), {0x85, 0, 0, 0});
  const Bytes grant = {0x82, 0, 0, 0};
  enough.insert(enough.end(), grant.begin(), grant.end());
  tooMany.insert(tooMany.end(), grant.begin(), grant.end());
  EXPECT_EQ("granted", RequestWith(enough));
  EXPECT_EQ("the server sends keep-alives without an end", RequestWith(tooMany));
  EXPECT_EQ("the server sends keep-alives without an end", ReceiveWith(tooMany));
}

TEST(NetbiosSession, SaysWhyTheServerGrantsNoSession) {
  EXPECT_THAT(RequestWith({0x83, 0, 0, 1, 0x80}), HasSubstr("does not listen on the called name"));
  EXPECT_THAT(RequestWith({0x83, 0, 0, 1, 0x81}), HasSubstr("for the calling name"));
  EXPECT_THAT(RequestWith({0x83, 0, 0, 1, 0x82}), HasSubstr("the called name is not there"));
  EXPECT_THAT(RequestWith({0x83, 0, 0, 1, 0x83}), HasSubstr("no room"));
  EXPECT_THAT(RequestWith({0x83, 0, 0, 1, 0x8F}), HasSubstr("no reason"));
}

TEST(NetbiosSession, FollowsNoServerToAnother) {
  EXPECT_EQ("no NetBIOS session: the server names another server",
            RequestWith({0x84, 0, 0, 6, 127, 0, 0, 1, 0, 139}));
}

TEST(NetbiosSession, TakesNothingElseForAGrant) {
  EXPECT_EQ(kNoneOfASession, RequestWith({0x82, 0, 0, 1, 0}));
  EXPECT_EQ(kNoneOfASession, RequestWith({0x82, 2, 0, 0}));
  EXPECT_EQ(kNoneOfASession, RequestWith({0x83, 0, 0, 2, 0x80, 0}));
  EXPECT_EQ(kNoneOfASession, RequestWith({0x00, 0, 0, 0}));
  EXPECT_EQ(kNoneOfASession, RequestWith({0x85, 0, 0, 1, 0}));
  EXPECT_EQ(kNoneOfASession, RequestWith(BytesOf("HTTP/1.1 400 Bad Request\r\n\r\n")));
  EXPECT_EQ(kClosed, RequestWith({0x82, 0, 0}));
  EXPECT_EQ(kClosed, RequestWith({0x83, 0, 0, 1}));
  EXPECT_EQ(kClosed, RequestWith({}));
}

TEST(NetbiosSession, PutsTheLengthBeforeAMessage) {
  MemoryStream stream({});
  NetbiosSession(stream, false).Send(Bytes(0x10203), kNever);
  const Bytes& sent = stream.Written();
  ASSERT_EQ(4u + 0x10203, sent.size());
  EXPECT_THAT(Bytes(sent.begin(), sent.begin() + 4), ElementsAre(0, 1, 2, 3));
}

TEST(NetbiosSession, SendsNothingThatIsTooLong) {
  MemoryStream stream({});
  EXPECT_THROW(NetbiosSession(stream, false).Send(Bytes(0x20000), kNever), std::runtime_error);
  EXPECT_TRUE(stream.Written().empty());
}

TEST(NetbiosSession, ReceivesAMessageBehindKeepAlives) {
  EXPECT_EQ("hello", ReceiveWith({0x85, 0, 0, 0, 0, 0, 0, 5, 'h', 'e', 'l', 'l', 'o'}));
  EXPECT_EQ("hello", ReceiveWith({0, 0, 0, 5, 'h', 'e', 'l', 'l', 'o', 'x'}, true));
}

TEST(NetbiosSession, ReceivesTheLongestMessage) {
  Bytes answer = {0, 1, 0xFF, 0xFF};
  answer.resize(4 + 0x1FFFF, 'a');
  EXPECT_EQ(std::string(0x1FFFF, 'a'), ReceiveWith(answer));
}

TEST(NetbiosSession, RefusesLengthsThatCannotBe) {
  EXPECT_THAT(ReceiveWith({0, 0, 0, 0}), HasSubstr("impossible length"));
  EXPECT_THAT(ReceiveWith({0, 2, 0, 0}, true), HasSubstr("impossible length"));
  EXPECT_THAT(ReceiveWith({0, 0xFF, 0xFF, 0xFF}, true), HasSubstr("impossible length"));
  EXPECT_EQ(kNoneOfASession, ReceiveWith({0, 2, 0, 0}));
  EXPECT_EQ(kNoneOfASession, ReceiveWith({0x85, 0, 0, 4, 1, 2, 3, 4}));
  EXPECT_EQ(kClosed, ReceiveWith({0, 0, 0, 5, 'h', 'e'}));
}

TEST(NetbiosSession, RefusesAGrantInTheMiddle) {
  EXPECT_EQ(kNoneOfASession, ReceiveWith({0x82, 0, 0, 0}));
  EXPECT_THAT(ReceiveWith({0x83, 0, 0, 1, 0x8F}), HasSubstr("no NetBIOS session"));
}

}  // namespace
