#include "agent/libZelCore/credentials.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "agent/libZelCore/failure_slowdown.h"
#include "tests/agent/temporary_directory.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::minutes;
using testing::ElementsAre;
using testing::HasSubstr;
using Verdict = Authenticator::Verdict;

/// The checks of a file are rate-limited to four a second.
template <typename Condition>
bool Eventually(Condition condition) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (std::chrono::steady_clock::now() < end) {
    if (condition()) return true;
    std::this_thread::yield();
  }
  return false;
}

class UserStoreTest : public testing::Test {
 protected:
  std::string Content() const { return ReadFile(file_); }
  void Write(const std::string& content) const { WriteFile(file_, content); }

  TemporaryDirectory directory_;
  const std::filesystem::path file_ = directory_.Native() / "users";
  UserStore users_{file_};
};

TEST_F(UserStoreTest, KnowsAUserThatWasAdded) {
  users_.Add("admin", "administrator", "a good password");
  EXPECT_TRUE(users_.CheckPassword("admin", "a good password"));
  EXPECT_FALSE(users_.CheckPassword("admin", "a good passwore"));
  EXPECT_FALSE(users_.CheckPassword("Admin", "a good password"));
  EXPECT_FALSE(users_.CheckPassword("nobody", "a good password"));
  EXPECT_EQ(users_.Role("admin"), "administrator");
  EXPECT_EQ(users_.Role("nobody"), std::nullopt);
}

TEST_F(UserStoreTest, WritesNoPasswordAndALineForEachUser) {
  users_.Add("admin", "administrator", "a good password");
  users_.Add("eve@example.org", "operator", "another password");
  EXPECT_THAT(users_.Logins(), ElementsAre("admin", "eve@example.org"));
  EXPECT_THAT(Content(), testing::StartsWith("admin:administrator:scrypt$16384$8$1$"));
  EXPECT_THAT(Content(), HasSubstr("\neve@example.org:operator:scrypt$"));
  EXPECT_THAT(Content(), testing::Not(HasSubstr("password")));
}

TEST_F(UserStoreTest, ReadsAKnownHash) {
  // RFC 7914 section 12, third vector, cut to 32 bytes of key: the salt is "SodiumChloride".
  Write(
      "# comment\n\npleaseletmein:operator:scrypt$16384$8$1$536f6469756d43686c6f72696465$"
      "7023bdcb3afd7348461c06cd81fd38ebfda8fbba904f8e3ea9b543f6545da1f2\n");
  EXPECT_TRUE(users_.CheckPassword("pleaseletmein", "pleaseletmein"));
  EXPECT_FALSE(users_.CheckPassword("pleaseletmein", "pleaseletmei"));
}

TEST_F(UserStoreTest, IgnoresAHashWhoseCostIsNoNumberThatItCanHold) {
  const std::string rest =
      "$536f6469756d43686c6f72696465$"
      "7023bdcb3afd7348461c06cd81fd38ebfda8fbba904f8e3ea9b543f6545da1f2\n";
  for (const char* cost : {"99999999999999999999$8$1", "16384$18446744073709551616$1",
                           "16384$8$18446744073709551617", "16384$8$", "-16384$8$1"}) {
    Write("pleaseletmein:operator:scrypt$" + std::string(cost) + rest);
    EXPECT_THAT(UserStore(file_).Logins(), testing::IsEmpty()) << cost;
  }
}

TEST_F(UserStoreTest, CannotBeReadFromADirectory) {
  std::filesystem::create_directory(file_);
  try {
    users_.Add("admin", "administrator", "a good password");
    FAIL() << "a directory was read";
  } catch (const std::runtime_error& error) {
    EXPECT_EQ(error.what(), "cannot read " + file_.string());
  }
  EXPECT_THAT(users_.Logins(), testing::IsEmpty());
}

TEST_F(UserStoreTest, RefusesAUserTwice) {
  users_.Add("admin", "administrator", "a good password");
  const std::string before = Content();
  EXPECT_THROW(users_.Add("admin", "operator", "a good password"), std::runtime_error);
  EXPECT_EQ(Content(), before);
}

TEST_F(UserStoreTest, RefusesUnusableLoginsRolesAndPasswords) {
  for (const char* login : {"", "a:b", "a b", "agent/x", "\xC3\xA4", "a\n"}) {
    EXPECT_THROW(users_.Add(login, "operator", "a good password"), std::runtime_error) << login;
  }
  EXPECT_THROW(users_.Add(std::string(65, 'a'), "operator", "a good password"), std::runtime_error);
  for (const char* role : {"", "Operator", "a:b", "a b"}) {
    EXPECT_THROW(users_.Add("user", role, "a good password"), std::runtime_error) << role;
  }
  for (const char* password :
       {"", "short", "with\ncontrol", "not utf-8 \xFF", "\xC2\x85 control"}) {
    EXPECT_THROW(users_.Add("user", "operator", password), std::runtime_error) << password;
  }
  EXPECT_FALSE(std::filesystem::exists(file_));
}

TEST_F(UserStoreTest, CountsTheCharactersOfAPasswordNotItsBytes) {
  EXPECT_THROW(users_.Add("user", "operator", "äöüß"), std::runtime_error);
  users_.Add("user", "operator", "äöüßäöüß");
  EXPECT_TRUE(users_.CheckPassword("user", "äöüßäöüß"));
}

TEST_F(UserStoreTest, RemovesAUserAndKeepsTheRest) {
  Write("# who may call\n");
  users_.Add("admin", "administrator", "a good password");
  users_.Add("eve", "operator", "a good password");
  users_.Remove("admin");
  EXPECT_THAT(users_.Logins(), ElementsAre("eve"));
  EXPECT_THAT(Content(), testing::StartsWith("# who may call\neve:"));
  EXPECT_THROW(users_.Remove("admin"), std::runtime_error);
}

TEST_F(UserStoreTest, ChangesAPassword) {
  users_.Add("admin", "administrator", "a good password");
  users_.SetPassword("admin", "a better password");
  EXPECT_FALSE(users_.CheckPassword("admin", "a good password"));
  EXPECT_TRUE(users_.CheckPassword("admin", "a better password"));
  EXPECT_EQ(users_.Role("admin"), "administrator");
  EXPECT_THROW(users_.SetPassword("nobody", "a better password"), std::runtime_error);
}

TEST_F(UserStoreTest, SeesWhatAnotherProcessWrote) {
  EXPECT_EQ(users_.Role("eve"), std::nullopt);
  const uint64_t version = users_.Version();
  UserStore(file_).Add("eve", "operator", "a good password");
  EXPECT_TRUE(Eventually([&] { return users_.Role("eve") == "operator"; }));
  EXPECT_GT(users_.Version(), version);
}

TEST_F(UserStoreTest, LosesNoUserWhenSeveralAreAddedAtOnce) {
  constexpr int kCount = 8;
  std::vector<std::thread> threads;
  for (int i = 0; i < kCount; ++i) {
    threads.emplace_back([this, i] {
      UserStore(file_).Add("user" + std::to_string(i), "operator", "a good password");
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(users_.Logins().size(), static_cast<size_t>(kCount));
}

TEST_F(UserStoreTest, GivesNothingToALineThatItCannotRead) {
  Write("broken\nadmin:administrator:plain$text\nx:y:scrypt$1$1$1$zz$zz\n:operator:\n");
  EXPECT_THAT(users_.Logins(), ElementsAre());
  EXPECT_FALSE(users_.CheckPassword("admin", "plain"));
}

TEST_F(UserStoreTest, GivesNothingToAHashOfUnusableCost) {
  const std::string tail = "$00$" + std::string(64, '0') + "\n";
  Write("a:operator:scrypt$3$8$1" + tail + "b:operator:scrypt$1099511627776$8$1" + tail);
  EXPECT_FALSE(users_.CheckPassword("a", "password"));
  EXPECT_FALSE(users_.CheckPassword("b", "password"));
}

TEST(FleetPassword, IsTheHmacOfTheName) {
  // RFC 4231, test case 2.
  EXPECT_EQ(FleetPassword("Jefe", "what do ya want for nothing?"),
            "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843");
}

class AuthenticatorTest : public testing::Test {
 protected:
  static std::string Base64(std::string_view text) {
    constexpr std::string_view kDigits =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string encoded;
    for (size_t i = 0; i < text.size(); i += 3) {
      uint32_t bits = 0;
      for (size_t k = 0; k < 3; ++k) {
        bits = bits << 8 | (i + k < text.size() ? static_cast<unsigned char>(text[i + k]) : 0U);
      }
      for (size_t k = 0; k < 4; ++k) {
        encoded += i + k > text.size() ? '=' : kDigits[(bits >> (18 - 6 * k)) & 63];
      }
    }
    return encoded;
  }
  static std::string Basic(const std::string& login, const std::string& password) {
    return "Basic " + Base64(login + ":" + password);
  }

  AuthenticatorTest() { users_.Add("admin", "administrator", "a good password"); }

  TemporaryDirectory directory_;
  UserStore users_{directory_.Native() / "users"};
  Authenticator authenticator_{users_, "fleet secret", minutes(5)};
};

TEST_F(AuthenticatorTest, RemembersACredentialThatItChecked) {
  const std::string header = Basic("admin", "a good password");
  EXPECT_EQ(authenticator_.CheckQuickly(header).verdict, Verdict::kNeedsSlowCheck);
  const auto checked = authenticator_.CheckSlowly(header);
  EXPECT_EQ(checked.verdict, Verdict::kAccepted);
  EXPECT_EQ(checked.caller.login, "admin");
  EXPECT_EQ(checked.caller.role, "administrator");
  const auto remembered = authenticator_.CheckQuickly(header);
  EXPECT_EQ(remembered.verdict, Verdict::kAccepted);
  EXPECT_EQ(remembered.caller.login, "admin");
  EXPECT_EQ(remembered.caller.role, "administrator");
  EXPECT_EQ(remembered.caller.kind, Caller::Kind::kConsoleUser);
}

TEST_F(AuthenticatorTest, RefusesAWrongPasswordEachTime) {
  const std::string header = Basic("admin", "a wrong password");
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(authenticator_.CheckQuickly(header).verdict, Verdict::kNeedsSlowCheck);
    EXPECT_EQ(authenticator_.CheckSlowly(header).verdict, Verdict::kRefused);
  }
}

TEST_F(AuthenticatorTest, ForgetsWhenTheUsersChange) {
  const std::string header = Basic("admin", "a good password");
  authenticator_.CheckSlowly(Basic("x", "y"));
  authenticator_.CheckQuickly(header);
  ASSERT_EQ(authenticator_.CheckSlowly(header).verdict, Verdict::kAccepted);
  ASSERT_EQ(authenticator_.CheckQuickly(header).verdict, Verdict::kAccepted);
  users_.SetPassword("admin", "a better password");
  EXPECT_EQ(authenticator_.CheckQuickly(header).verdict, Verdict::kNeedsSlowCheck);
  EXPECT_EQ(authenticator_.CheckSlowly(header).verdict, Verdict::kRefused);
}

TEST_F(AuthenticatorTest, ForgetsAfterAWhile) {
  Authenticator forgetful(users_, "", milliseconds(0));
  const std::string header = Basic("admin", "a good password");
  forgetful.CheckQuickly(header);
  ASSERT_EQ(forgetful.CheckSlowly(header).verdict, Verdict::kAccepted);
  EXPECT_EQ(forgetful.CheckQuickly(header).verdict, Verdict::kNeedsSlowCheck);
}

TEST_F(AuthenticatorTest, KnowsEveryAgentOfTheFleet) {
  const auto answer =
      authenticator_.CheckQuickly(Basic("agent/RELAY", FleetPassword("fleet secret", "RELAY")));
  EXPECT_EQ(answer.verdict, Verdict::kAccepted);
  EXPECT_EQ(answer.caller.kind, Caller::Kind::kAgent);
  EXPECT_EQ(answer.caller.login, "RELAY");
}

TEST_F(AuthenticatorTest, RefusesAgentsOfOtherFleets) {
  for (const std::string& header :
       {Basic("agent/RELAY", FleetPassword("other secret", "RELAY")),
        Basic("agent/RELAY", FleetPassword("fleet secret", "OTHER")), Basic("agent/RELAY", ""),
        Basic("agent/", FleetPassword("fleet secret", ""))}) {
    EXPECT_EQ(authenticator_.CheckQuickly(header).verdict, Verdict::kRefused);
    EXPECT_EQ(authenticator_.CheckSlowly(header).verdict, Verdict::kRefused);
  }
}

TEST_F(AuthenticatorTest, RefusesAllAgentsWithoutAFleetSecret) {
  Authenticator alone(users_, "", minutes(5));
  EXPECT_EQ(alone.CheckQuickly(Basic("agent/RELAY", FleetPassword("", "RELAY"))).verdict,
            Verdict::kRefused);
}

TEST_F(AuthenticatorTest, RefusesMalformedHeaders) {
  for (const char* header : {"", "Basic", "Basic ", "Basic     ", "Bearer abc", "Basic !!!!",
                             "Basic YWRtaW4=", "Basic YWRtaW46", "basic YW:=", "BasicYWRtaW46eA==",
                             "Basic YWRtaW46eA", "Basic YWRtaW46eA== x"}) {
    const Verdict verdict = authenticator_.CheckQuickly(header).verdict;
    const Verdict slow = authenticator_.CheckSlowly(header).verdict;
    EXPECT_NE(verdict, Verdict::kAccepted) << header;
    EXPECT_EQ(slow, Verdict::kRefused) << header;
  }
}

TEST_F(AuthenticatorTest, TakesTheSchemeInAnyCase) {
  const std::string header = "bAsIc  " + Base64("admin:a good password");
  EXPECT_EQ(authenticator_.CheckSlowly(header).verdict, Verdict::kAccepted);
}

TEST(FailureSlowdown, HoldsBackAfterThreeFailuresAndDoubles) {
  FailureSlowdown slowdown;
  const auto now = FailureSlowdown::Clock::now();
  std::vector<int64_t> delays;
  for (int i = 0; i < 10; ++i) {
    delays.push_back(slowdown.NoteFailure("192.0.2.1", "admin", now).count());
  }
  EXPECT_THAT(delays, ElementsAre(0, 0, 0, 250, 500, 1000, 2000, 4000, 4000, 4000));
}

TEST(FailureSlowdown, CountsALoginOverAllAddresses) {
  FailureSlowdown slowdown;
  const auto now = FailureSlowdown::Clock::now();
  for (int i = 0; i < 3; ++i) {
    slowdown.NoteFailure("192.0.2." + std::to_string(i), "admin", now);
  }
  EXPECT_EQ(slowdown.NoteFailure("192.0.2.9", "admin", now), milliseconds(250));
  EXPECT_EQ(slowdown.NoteFailure("192.0.2.10", "other", now), milliseconds(0));
}

TEST(FailureSlowdown, TakesAnIpv6NetworkForOnePlace) {
  FailureSlowdown slowdown;
  const auto now = FailureSlowdown::Clock::now();
  for (int i = 0; i < 3; ++i) {
    slowdown.NoteFailure("2001:db8:1:2:3:4:5:" + std::to_string(i), std::to_string(i), now);
  }
  EXPECT_GT(slowdown.NoteFailure("2001:db8:1:2:9:9:9:9", "x", now), milliseconds(0));
  EXPECT_EQ(slowdown.NoteFailure("2001:db8:1:3:9:9:9:9", "y", now), milliseconds(0));
}

TEST(FailureSlowdown, TakesAnIpv6NetworkForOnePlaceHoweverItsAddressesAreWritten) {
  EXPECT_EQ(PlaceOf("2001:db8::1"), PlaceOf("2001:db8:0:0:1::"));
  EXPECT_NE(PlaceOf("2001:db8::1"), PlaceOf("2001:db8:0:1::1"));
  EXPECT_NE(PlaceOf("2001::1:2:3:4:5"), PlaceOf("2001::5"));
  EXPECT_EQ(PlaceOf("192.0.2.1"), "192.0.2.1");
}

TEST(FailureSlowdown, ForgetsAfterASuccessAndAfterAWhile) {
  FailureSlowdown slowdown;
  const auto now = FailureSlowdown::Clock::now();
  for (int i = 0; i < 5; ++i) slowdown.NoteFailure("192.0.2.1", "admin", now);
  slowdown.NoteSuccess("192.0.2.1", "admin");
  EXPECT_EQ(slowdown.NoteFailure("192.0.2.1", "admin", now), milliseconds(0));
  for (int i = 0; i < 5; ++i) slowdown.NoteFailure("192.0.2.1", "admin", now);
  const auto later = now + FailureSlowdown::kMemory + minutes(1);
  EXPECT_EQ(slowdown.NoteFailure("192.0.2.1", "admin", later), milliseconds(0));
}

TEST(FailureSlowdown, ForgetsTheOldestPlacesFirst) {
  FailureSlowdown slowdown;
  const auto now = FailureSlowdown::Clock::now();
  for (int i = 0; i < 4; ++i) slowdown.NoteFailure("first", "", now);
  for (size_t i = 0; i < FailureSlowdown::kMostPlaces; ++i) {
    slowdown.NoteFailure("place" + std::to_string(i), "", now);
  }
  EXPECT_EQ(slowdown.NoteFailure("first", "", now), milliseconds(0));
}

}  // namespace
