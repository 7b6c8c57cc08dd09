#include "agent/libZel/smb/messages.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "agent/libZel/smb/nt_status.h"
#include "tests/agent/smb_test.h"

namespace {

using namespace smb;
using testing::HasSubstr;

Bytes AnswerHeader(Command command, uint32_t flags = kFlagResponse) {
  ByteWriter writer;
  writer.U32(0x424D53FE).U16(64).U16(1).U32(0xC0000022).U16(static_cast<uint16_t>(command));
  writer.U16(3).U32(flags).U32(0).U64(9).U32(0).U32(5).U64(0x0102030405060708);
  return writer.Zeros(16).Take();
}

Bytes Joined(Bytes head, const Bytes& tail) {
  head.insert(head.end(), tail.begin(), tail.end());
  return head;
}

/// An answer to a negotiation without contexts.
Bytes NegotiateAnswer(Dialect dialect, uint16_t contexts = 0, uint32_t capabilities = 0) {
  ByteWriter body;
  body.U16(65).U16(kSigningEnabled).U16(static_cast<uint16_t>(dialect)).U16(contexts).Zeros(16);
  body.U32(capabilities).U32(1).U32(1).U32(1).U64(0).U64(0).U16(128).U16(0);
  body.U32(contexts == 0 ? 0 : 128);
  return Joined(AnswerHeader(Command::kNegotiate), body.Take());
}

Bytes Context(uint16_t type, const Bytes& data) {
  ByteWriter context;
  context.U16(type).U16(static_cast<uint16_t>(data.size())).U32(0).Raw(data);
  return context.AlignTo8().Take();
}

const Bytes kSha512 = {1, 0, 4, 0, 1, 0, 's', 'a', 'l', 't'};
const Bytes kGcm = {1, 0, 2, 0};

/// One of 3.1.1 with these contexts.
Bytes With(std::initializer_list<Bytes> contexts) {
  Bytes answer = NegotiateAnswer(Dialect::k311, static_cast<uint16_t>(contexts.size()));
  for (const Bytes& context : contexts) answer = Joined(std::move(answer), context);
  return answer;
}

std::string NegotiationFailure(const Bytes& answer) {
  return FailureOf([&] { ParseNegotiateReply(answer); });
}

TEST(SmbMessages, WritesTheHeaderOfARequest) {
  Header header;
  header.command = Command::kTreeDisconnect;
  header.credits = 8;
  header.creditCharge = 1;
  header.messageId = 0x1234;
  header.treeId = 0xABCD;
  header.sessionId = 0x1122334455667788;
  const Bytes request = BuildEmpty(header);
  const ByteReader reader(request);
  ASSERT_EQ(68u, reader.Size());
  EXPECT_EQ(0x424D53FEu, reader.U32(0));
  EXPECT_EQ(64, reader.U16(4));
  EXPECT_EQ(1, reader.U16(6));
  EXPECT_EQ(4, reader.U16(12));
  EXPECT_EQ(8, reader.U16(14));
  EXPECT_EQ(0u, reader.U32(16));
  EXPECT_EQ(0x1234u, reader.U64(24));
  EXPECT_EQ(0xABCDu, reader.U32(36));
  EXPECT_EQ(0x1122334455667788u, reader.U64(40));
  EXPECT_EQ(4, reader.U16(64));
}

TEST(SmbMessages, OffersFiveDialectsAndOneHash) {
  Header header;
  header.command = Command::kNegotiate;
  const Bytes request = BuildNegotiate(header, Guid{1}, Salt{2});
  const ByteReader reader(request);
  EXPECT_EQ(36, reader.U16(64));
  ASSERT_EQ(5, reader.U16(66));
  EXPECT_EQ(kSigningEnabled, reader.U16(68));
  const uint16_t dialects[] = {0x0202, 0x0210, 0x0300, 0x0302, 0x0311};
  for (size_t i = 0; i < 5; ++i) EXPECT_EQ(dialects[i], reader.U16(100 + 2 * i));
  const uint32_t contexts = reader.U32(92);
  EXPECT_EQ(0u, contexts % 8);
  EXPECT_EQ(1, reader.U16(contexts));
  EXPECT_EQ(38, reader.U16(contexts + 2));
  EXPECT_EQ(1, reader.U16(contexts + 8));
  EXPECT_EQ(32, reader.U16(contexts + 10));
  EXPECT_EQ(1, reader.U16(contexts + 12));
}

TEST(SmbMessages, PutsTokenAndPathWhereItSaysTheyAre) {
  const Bytes token = {9, 8, 7};
  const Bytes setup = BuildSessionSetup({}, kSigningRequired, token);
  const ByteReader setUp(setup);
  EXPECT_EQ(25, setUp.U16(64));
  EXPECT_EQ(kSigningRequired, setUp.U8(67));
  const ByteView sentToken = setUp.Part(setUp.U16(76), setUp.U16(78));
  EXPECT_EQ(token, Bytes(sentToken.begin(), sentToken.end()));
  const Bytes connect = BuildTreeConnect({}, token);
  const ByteReader connected(connect);
  EXPECT_EQ(9, connected.U16(64));
  const ByteView sentPath = connected.Part(connected.U16(68), connected.U16(70));
  EXPECT_EQ(token, Bytes(sentPath.begin(), sentPath.end()));
}

TEST(SmbMessages, BuildsNothingThatIsTooLong) {
  EXPECT_THROW(BuildSessionSetup({}, kSigningEnabled, Bytes(0x10000)), std::runtime_error);
  EXPECT_THROW(BuildTreeConnect({}, Bytes(0x10000)), std::runtime_error);
}

TEST(SmbMessages, ReadsTheHeaderOfAnAnswer) {
  const Header header = ParseHeader(AnswerHeader(Command::kTreeConnect));
  EXPECT_EQ(Command::kTreeConnect, header.command);
  EXPECT_EQ(0xC0000022u, header.status);
  EXPECT_EQ(3, header.credits);
  EXPECT_EQ(9u, header.messageId);
  EXPECT_EQ(5u, header.treeId);
  EXPECT_EQ(0x0102030405060708u, header.sessionId);
}

TEST(SmbMessages, SeesNoTreeInAnAsynchronousAnswer) {
  EXPECT_EQ(0u,
            ParseHeader(AnswerHeader(Command::kTreeConnect, kFlagResponse | kFlagAsync)).treeId);
}

TEST(SmbMessages, RefusesWhatIsNoAnswer) {
  const auto failureOf = [](const Bytes& message) {
    return FailureOf([&] { ParseHeader(message); });
  };
  EXPECT_THAT(failureOf({0xFF, 'S', 'M', 'B', 0x72}), HasSubstr("version 1"));
  EXPECT_THAT(failureOf({'H', 'T', 'T', 'P', '/', '1'}), HasSubstr("none of SMB 2 or 3"));
  EXPECT_THAT(failureOf({}), HasSubstr("too short"));
  EXPECT_THAT(failureOf(AnswerHeader(Command::kLogOff, 0)), HasSubstr("is a request"));
  Bytes header = AnswerHeader(Command::kLogOff);
  header[20] = 72;
  EXPECT_THAT(failureOf(header), HasSubstr("more than was asked for"));
  header = AnswerHeader(Command::kLogOff);
  header[4] = 63;
  EXPECT_THAT(failureOf(header), HasSubstr("none of SMB 2 or 3"));
}

TEST(SmbMessages, RefusesEveryHeaderThatIsCutOff) {
  const Bytes whole = AnswerHeader(Command::kLogOff);
  for (size_t size = 0; size < whole.size(); ++size)
    EXPECT_THROW(ParseHeader(ByteView(whole).first(size)), std::runtime_error) << size;
}

TEST(SmbMessages, ReadsWhatTheServerChooses) {
  const NegotiateReply old = ParseNegotiateReply(NegotiateAnswer(Dialect::k202));
  EXPECT_EQ(Dialect::k202, old.dialect);
  EXPECT_EQ(kSigningEnabled, old.securityMode);
  EXPECT_FALSE(old.cipher);
  const NegotiateReply fresh = ParseNegotiateReply(With({Context(1, kSha512), Context(2, kGcm)}));
  EXPECT_EQ(Dialect::k311, fresh.dialect);
  EXPECT_EQ(Cipher::kAes128Gcm, fresh.cipher);
}

TEST(SmbMessages, TakesTheCipherOf30FromTheCapabilities) {
  EXPECT_FALSE(ParseNegotiateReply(NegotiateAnswer(Dialect::k300)).cipher);
  EXPECT_EQ(Cipher::kAes128Ccm,
            ParseNegotiateReply(NegotiateAnswer(Dialect::k302, 0, kCapabilityEncryption)).cipher);
  EXPECT_FALSE(
      ParseNegotiateReply(NegotiateAnswer(Dialect::k210, 0, kCapabilityEncryption)).cipher);
}

TEST(SmbMessages, IgnoresContextsThatItDoesNotKnow) {
  const Bytes answer = With({Context(0x77, {1, 2, 3}), Context(1, kSha512)});
  EXPECT_FALSE(ParseNegotiateReply(answer).cipher);
  EXPECT_FALSE(ParseNegotiateReply(With({Context(1, kSha512), Context(2, {1, 0, 0, 0})})).cipher);
}

TEST(SmbMessages, RefusesChoicesThatWereNotOffered) {
  for (const uint16_t dialect : {0x0000, 0x02FF, 0x0310, 0x0312, 0xFFFF}) {
    EXPECT_THAT(NegotiationFailure(NegotiateAnswer(Dialect{dialect})),
                HasSubstr("a dialect that was not offered"));
  }
  EXPECT_THAT(NegotiationFailure(With({Context(1, {1, 0, 0, 0, 2, 0})})),
              HasSubstr("a hash that was not offered"));
  EXPECT_THAT(NegotiationFailure(With({Context(1, kSha512), Context(2, {1, 0, 4, 0})})),
              HasSubstr("a cipher that was not offered"));
}

TEST(SmbMessages, WantsTheNegotiationOf311Protected) {
  EXPECT_THAT(NegotiationFailure(NegotiateAnswer(Dialect::k311)), HasSubstr("does not protect"));
  EXPECT_THAT(NegotiationFailure(With({Context(2, kGcm)})), HasSubstr("does not protect"));
  EXPECT_THAT(NegotiationFailure(With({Context(1, kSha512), Context(1, kSha512)})),
              HasSubstr("chooses twice"));
}

TEST(SmbMessages, RefusesContextsThatLeaveTheMessage) {
  Bytes answer = With({Context(1, kSha512)});
  answer[128 + 2] = 0xFF;
  EXPECT_THAT(NegotiationFailure(answer), HasSubstr("too short"));
  answer = With({Context(1, kSha512)});
  answer[64 + 6] = 2;
  EXPECT_THAT(NegotiationFailure(answer), HasSubstr("too short"));
  answer = With({Context(1, kSha512)});
  for (size_t i = 0; i < 4; ++i) answer[64 + 60 + i] = 0xFF;
  EXPECT_THAT(NegotiationFailure(answer), HasSubstr("too short"));
  answer = With({Context(1, kSha512)});
  answer[128 + 8 + 2] = 200;  // the salt
  EXPECT_THAT(NegotiationFailure(answer), HasSubstr("too short"));
}

TEST(SmbMessages, RefusesEveryNegotiationThatIsCutOff) {
  const Bytes whole = With({Context(1, {1, 0, 0, 0, 1, 0}), Context(2, kGcm)});
  const size_t last = whole.size() - 4;  // the rest fills up
  for (size_t size = 0; size < last; ++size)
    EXPECT_THROW(ParseNegotiateReply(ByteView(whole).first(size)), std::runtime_error) << size;
  ParseNegotiateReply(ByteView(whole).first(last));
}

TEST(SmbMessages, RefusesAHintThatLeavesTheMessage) {
  Bytes answer = NegotiateAnswer(Dialect::k210);
  answer[64 + 58] = 1;
  EXPECT_THAT(NegotiationFailure(answer), HasSubstr("too short"));
}

TEST(SmbMessages, ReadsTheTokenOfASessionSetup) {
  ByteWriter body;
  body.U16(9).U16(kSessionGuest).U16(72).U16(3).Raw(Bytes{7, 8, 9});
  const Bytes answer = Joined(AnswerHeader(Command::kSessionSetup), body.Take());
  const SessionSetupReply reply = ParseSessionSetupReply(answer);
  EXPECT_EQ(kSessionGuest, reply.flags);
  EXPECT_EQ(Bytes({7, 8, 9}), reply.token);
  for (size_t size = 0; size < answer.size(); ++size)
    EXPECT_THROW(ParseSessionSetupReply(ByteView(answer).first(size)), std::runtime_error) << size;
}

TEST(SmbMessages, LooksAtNoPlaceOfAnEmptyToken) {
  ByteWriter body;
  body.U16(9).U16(0).U16(0xFFFF).U16(0);
  EXPECT_TRUE(ParseSessionSetupReply(Joined(AnswerHeader(Command::kSessionSetup), body.Take()))
                  .token.empty());
}

TEST(SmbMessages, ReadsTheKindOfAShare) {
  ByteWriter body;
  body.U16(16).U8(2).U8(0).U32(kShareEncrypts).U32(0).U32(0);
  const Bytes answer = Joined(AnswerHeader(Command::kTreeConnect), body.Take());
  EXPECT_EQ(2, ParseTreeConnectReply(answer).shareType);
  EXPECT_EQ(kShareEncrypts, ParseTreeConnectReply(answer).shareFlags);
  for (size_t size = 0; size < answer.size(); ++size)
    EXPECT_THROW(ParseTreeConnectReply(ByteView(answer).first(size)), std::runtime_error) << size;
}

TEST(SmbMessages, RefusesContentOfAnotherForm) {
  const Bytes answer = Joined(AnswerHeader(Command::kTreeConnect), Bytes(16));
  EXPECT_THAT(FailureOf([&] { ParseTreeConnectReply(answer); }), HasSubstr("another form"));
  EXPECT_THAT(FailureOf([&] { ParseSessionSetupReply(answer); }), HasSubstr("another form"));
  EXPECT_THAT(FailureOf([&] { ParseEmptyReply(answer); }), HasSubstr("another form"));
  EXPECT_THAT(NegotiationFailure(Joined(answer, Bytes(64))), HasSubstr("another form"));
}

TEST(SmbMessages, NamesDialects) {
  EXPECT_STREQ("2.0.2", NameOf(Dialect::k202));
  EXPECT_STREQ("2.1", NameOf(Dialect::k210));
  EXPECT_STREQ("3.0", NameOf(Dialect::k300));
  EXPECT_STREQ("3.0.2", NameOf(Dialect::k302));
  EXPECT_STREQ("3.1.1", NameOf(Dialect::k311));
}

TEST(NtStatus, NamesTheCommonOnes) {
  EXPECT_EQ("STATUS_LOGON_FAILURE", DescribeStatus(0xC000006D));
  EXPECT_EQ("STATUS_BAD_NETWORK_NAME", DescribeStatus(0xC00000CC));
  EXPECT_EQ("status 0xC0009999", DescribeStatus(0xC0009999));
}

}  // namespace
