#include "agent/libZel/smb/ntlm_login.h"

#include <gtest/gtest.h>

#include <array>
#include <stdexcept>
#include <string>
#include <utility>

#include "tests/agent/ntlm_verifier.h"

namespace {

using smb::Bytes;
using smb::NtlmLogin;

constexpr const char* kServer = "127.0.0.1";
constexpr const char* kPassword = "Password";
constexpr std::array<uint8_t, 16> kPasswordHash = {0xA4, 0xF4, 0x9C, 0x40, 0x65, 0x10, 0xBD, 0xCA,
                                                   0xB6, 0x82, 0x4E, 0xE7, 0xC3, 0x0F, 0xD8, 0x52};
constexpr const char* kUnicodePassword = "P\u00e4ss \u0433\u0440\u0438\u0431 \U0001F344";
constexpr std::array<uint8_t, 16> kUnicodePasswordHash = {
    0x9C, 0x12, 0xD5, 0x9B, 0x19, 0x0A, 0x07, 0xB6, 0x7C, 0xC2, 0x2E, 0xFF, 0x76, 0xBE, 0xED, 0x83};
/// The server's view of the log-in's answer.
NtlmVerifier AnswerOf(NtlmLogin& login) {
  login.Next({});
  return NtlmVerifier(login.Next(NtlmVerifier::Challenge()));
}

NtlmVerifier AnswerOf(const ZelString& user, const ZelString& password) {
  NtlmLogin login(user, password, kServer);
  return AnswerOf(login);
}

/// What the log-in says when it fails.
std::string FailureWith(const Bytes& challenge, const ZelString& user = "ann") {
  NtlmLogin login(user, kPassword, kServer);
  login.Next({});
  try {
    login.Next(challenge);
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  return "none";
}

// Providers there overrun their buffers by longer texts.
TEST(NtlmLogin, RefusesNamesAndPasswordsThatNoAccountCanHave) {
  const std::string longest(256, 'x');
  const std::string domainAndName = longest + "\\" + longest;
  EXPECT_NO_THROW(NtlmLogin(domainAndName.c_str(), longest.c_str(), kServer));
  EXPECT_THROW(NtlmLogin((longest + "x").c_str(), kPassword, kServer), std::runtime_error);
  EXPECT_THROW(NtlmLogin(("x" + domainAndName).c_str(), kPassword, kServer), std::runtime_error);
  EXPECT_THROW(NtlmLogin("ann", (longest + "x").c_str(), kServer), std::runtime_error);
}

std::string Repeat(const std::string& text, int count) {
  std::string repeated;
  for (int i = 0; i < count; ++i) repeated += text;
  return repeated;
}

// The limit is one of UTF-16 units, whatever they take in UTF-8.
TEST(NtlmLogin, CountsCharactersAsTheProvidersDo) {
  for (const auto& [character, count] :
       {std::pair<std::string, int>("\u00e4", 256), std::pair<std::string, int>("\u0433", 256),
        std::pair<std::string, int>("\u20ac", 256),
        std::pair<std::string, int>("\U0001F344", 128)}) {
    const ZelString longest(Repeat(character, count));
    EXPECT_NO_THROW(NtlmLogin("ann", longest, kServer)) << character;
    const ZelString longer(Repeat(character, count) + "x");
    EXPECT_THROW(NtlmLogin("ann", longer, kServer), std::runtime_error) << character;
  }
}

TEST(NtlmLogin, BeginsWithANegotiateMessage) {
  NtlmLogin login("ann", kPassword, kServer);
  const Bytes token = login.Next({});
  ASSERT_GE(token.size(), 16u);
  EXPECT_EQ(Bytes({'N', 'T', 'L', 'M', 'S', 'S', 'P', 0, 1, 0, 0, 0}),
            Bytes(token.begin(), token.begin() + 12));
}

TEST(NtlmLogin, AnswersByVersionTwoWithThePassword) {
  const NtlmVerifier answer = AnswerOf("ann", kPassword);
  EXPECT_TRUE(answer.IsMadeWith(kPasswordHash));
  EXPECT_FALSE(answer.IsMadeWith(kUnicodePasswordHash));
  EXPECT_FALSE(AnswerOf("ann", "password").IsMadeWith(kPasswordHash));
}

TEST(NtlmLogin, SendsANameAloneWithoutADomain) {
  const NtlmVerifier answer = AnswerOf("ann", kPassword);
  EXPECT_EQ(u"ann", answer.User());
  EXPECT_EQ(u"", answer.Domain());
}

TEST(NtlmLogin, TakesADomainBeforeABackslash) {
  const NtlmVerifier answer = AnswerOf("OFFICE\\ann", kPassword);
  EXPECT_EQ(u"ann", answer.User());
  EXPECT_EQ(u"OFFICE", answer.Domain());
  EXPECT_TRUE(answer.IsMadeWith(kPasswordHash));
}

TEST(NtlmLogin, SendsANameWithAnAtSignWhole) {
  const NtlmVerifier answer = AnswerOf("ann@office.example", kPassword);
  EXPECT_EQ(u"ann@office.example", answer.User());
  EXPECT_EQ(u"", answer.Domain());
  EXPECT_TRUE(answer.IsMadeWith(kPasswordHash));
}

TEST(NtlmLogin, TakesNamesAndPasswordsOfAnyScript) {
  const NtlmVerifier answer = AnswerOf("B\u00dcRO\\j\u00f6rg", kUnicodePassword);
  EXPECT_EQ(u"j\u00f6rg", answer.User());
  EXPECT_EQ(u"B\u00dcRO", answer.Domain());
  EXPECT_TRUE(answer.IsMadeWith(kUnicodePasswordHash));
}

TEST(NtlmLogin, SharesASessionKeyWithTheServer) {
  NtlmLogin login("B\u00dcRO\\j\u00f6rg", kUnicodePassword, kServer);
  const NtlmVerifier answer = AnswerOf(login);
  EXPECT_EQ(answer.SessionKey(kUnicodePasswordHash), login.SessionKey());
  EXPECT_EQ(16u, login.SessionKey().size());
}

TEST(NtlmLogin, HasAnotherSessionKeyEachTime) {
  NtlmLogin first("ann", kPassword, kServer);
  NtlmLogin second("ann", kPassword, kServer);
  AnswerOf(first);
  AnswerOf(second);
  EXPECT_NE(first.SessionKey(), second.SessionKey());
}

TEST(NtlmLogin, IsAnonymousWithoutAUser) {
  NtlmLogin login("", kPassword, kServer);
  EXPECT_TRUE(login.IsAnonymous());
  const NtlmVerifier answer = AnswerOf(login);
  EXPECT_EQ(u"", answer.User());
  EXPECT_EQ(u"", answer.Domain());
  EXPECT_EQ(Bytes{0}, answer.OldResponse());
  EXPECT_EQ(Bytes(), answer.NewResponse());
  EXPECT_NE(0u, answer.Flags() & 0x800u);
  EXPECT_EQ(Bytes(), login.SessionKey());
}

TEST(NtlmLogin, IsNotAnonymousWithAUser) {
  EXPECT_FALSE(NtlmLogin("ann", "", kServer).IsAnonymous());
}

TEST(NtlmLogin, RefusesADomainWithoutAName) {
  EXPECT_THROW(NtlmLogin("OFFICE\\", kPassword, kServer), std::runtime_error);
}

TEST(NtlmLogin, RefusesANulInTheNameOrThePassword) {
  EXPECT_THROW(NtlmLogin("ann", std::string_view("a\0b", 3), kServer), std::runtime_error);
  EXPECT_THROW(NtlmLogin(std::string_view("a\0b", 3), kPassword, kServer), std::runtime_error);
}

TEST(NtlmLogin, RefusesAChallengeThatEndsTooEarly) {
  const Bytes whole = NtlmVerifier::Challenge();
  for (size_t size = 0; size < whole.size(); ++size) {
    const Bytes part(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(size));
    EXPECT_EQ("the server's log-in message is malformed", FailureWith(part, "")) << size;
  }
}

TEST(NtlmLogin, RefusesAChallengeOfAnotherType) {
  Bytes message = NtlmVerifier::Challenge();
  message[8] = 3;
  EXPECT_EQ("the server's log-in message is malformed", FailureWith(message));
}

TEST(NtlmLogin, RefusesAChallengeWhosePartsLeaveIt) {
  for (const size_t field : {12u, 16u, 40u, 44u}) {
    Bytes message = NtlmVerifier::Challenge();
    message[field + 1] = 0x7F;
    EXPECT_EQ("the server's log-in message is malformed", FailureWith(message)) << field;
  }
}

TEST(NtlmLogin, RefusesPairsWithoutAnEnd) {
  Bytes message = NtlmVerifier::Challenge();
  message[message.size() - 4] = 9;
  EXPECT_EQ("the server's log-in message is malformed", FailureWith(message));
}

TEST(NtlmLogin, SaysNothingOfThePasswordWhenItFails) {
  Bytes message = NtlmVerifier::Challenge();
  message[20] = 0;  // neither Unicode nor any other encoding
  const std::string failure = FailureWith(message);
  EXPECT_NE("none", failure);
  EXPECT_EQ(std::string::npos, failure.find(kPassword));
}

TEST(NtlmLogin, RefusesAServerThatBegins) {
  NtlmLogin login("ann", kPassword, kServer);
  EXPECT_THROW(login.Next(NtlmVerifier::Challenge()), std::runtime_error);
}

TEST(NtlmLogin, RefusesASecondChallenge) {
  NtlmLogin login("ann", kPassword, kServer);
  AnswerOf(login);
  EXPECT_THROW(login.Next(NtlmVerifier::Challenge()), std::runtime_error);
}

}  // namespace
