#include "agent/libZel/user_sessions.h"

#include <gmock/gmock.h>

#include <chrono>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "agent/libZel/absence_limit.h"
#include "agent/libZel/session_rules.h"
#include "libZel/user_session.h"
#include "tests/agent/scripted_proxy.h"
#include "tests/agent/test_pipe.h"

using proxy_protocol::Field;
using std::chrono::milliseconds;
using testing::ElementsAre;

namespace {

using Properties = std::map<std::string, std::string>;

std::optional<BegunSession> OfLogind(const Properties& changes = {}, const char* seat = "seat0") {
  Properties properties = {{"Class", "user"},    {"Type", "x11"},      {"State", "active"},
                           {"Active", "yes"},    {"Remote", "no"},     {"Display", ":0"},
                           {"LockedHint", "no"}, {"Timestamp", "1700"}};
  for (const auto& [name, value] : changes) properties[name] = value;
  return SessionOfLogind({"c1", 1000, "alice", seat}, properties);
}

BegunSession Of(const char* id, bool isGraphical, bool isActive, bool isRemote, uint64_t begunAt) {
  BegunSession one;
  one.session.id = id;
  one.session.isGraphical = isGraphical;
  one.session.isActive = isActive;
  one.session.isRemote = isRemote;
  one.begunAt = begunAt;
  return one;
}

bool IsAbsentWhen(std::vector<Field> fields) {
  const TestPipe pipe;
  const ScriptedProxy proxy(pipe.Name(), ScriptedProxy::Says("absence", std::move(fields)));
  return ProxyUtils::IsUserAbsent(pipe.Name());
}

bool IsAbsentWhen(const std::string& idleMs, const std::string& screenLocked) {
  return IsAbsentWhen({{"idleMs", idleMs}, {"screenLocked", screenLocked}});
}

/// Sets it back at its end.
class AbsenceLimit {
 public:
  explicit AbsenceLimit(milliseconds limit) { SetAbsenceLimit(limit); }
  ~AbsenceLimit() { SetAbsenceLimit(before_); }
  AbsenceLimit(const AbsenceLimit&) = delete;
  AbsenceLimit& operator=(const AbsenceLimit&) = delete;

 private:
  const milliseconds before_ = GetAbsenceLimit();
};

}  // namespace

TEST(UserSessions, AreInTheOrderOfWhomTheAgentSpeaksTo) {
  std::vector<std::string> ids;
  for (const UserSession& session :
       InOrder({Of("text", false, true, false, 1), Of("remote text", false, true, true, 1),
                Of("inactive text", false, false, false, 1), Of("inactive", true, false, false, 1),
                Of("later", true, true, false, 9), Of("remote", true, true, true, 1),
                Of("first", true, true, false, 5)}))
    ids.push_back(session.id);
  EXPECT_THAT(ids, ElementsAre("first", "later", "remote", "text", "remote text", "inactive",
                               "inactive text"));
}

TEST(UserSessions, AreAsLogindDescribesThem) {
  const auto one = OfLogind();
  ASSERT_TRUE(one);
  EXPECT_EQ(one->session.id, "c1");
  EXPECT_EQ(one->session.userName, "alice");
  EXPECT_EQ(one->session.userId, 1000u);
  EXPECT_EQ(one->session.display, ":0");
  EXPECT_EQ(one->begunAt, 1700u);
  EXPECT_TRUE(one->session.isGraphical);
  EXPECT_TRUE(one->session.isActive);
  EXPECT_FALSE(one->session.isLocked);
  EXPECT_FALSE(one->session.isRemote);

  EXPECT_TRUE(OfLogind({{"Type", "wayland"}})->session.isGraphical);
  EXPECT_FALSE(OfLogind({{"Type", "tty"}})->session.isGraphical);
  EXPECT_FALSE(OfLogind({{"Active", "no"}})->session.isActive);
  EXPECT_TRUE(OfLogind({{"LockedHint", "yes"}})->session.isLocked);
  EXPECT_TRUE(OfLogind({{"Remote", "yes"}})->session.isRemote);
  EXPECT_TRUE(OfLogind({{"State", "online"}})) << "in the background for now";
}

TEST(UserSessions, AreThoseOfPeopleAlone) {
  EXPECT_FALSE(OfLogind({{"Class", "greeter"}}));
  EXPECT_FALSE(OfLogind({{"Class", "background"}}));
  EXPECT_FALSE(OfLogind({{"Class", "manager"}}));
  EXPECT_FALSE(OfLogind({{"Class", "lock-screen"}}));
  EXPECT_FALSE(OfLogind({{"State", "closing"}}));
  EXPECT_FALSE(SessionOfLogind({"c1", 1000, "alice", "seat0"}, {})) << "nothing is known of it";
}

TEST(UserSessions, AreDesktopsOrAtASeat) {
  constexpr const char* kNoSeat = "";
  EXPECT_FALSE(OfLogind({{"Type", "tty"}, {"Remote", "yes"}, {"Display", ""}}, kNoSeat)) << "SSH";
  EXPECT_FALSE(OfLogind({{"Type", "tty"}}, kNoSeat)) << "a serial line";
  EXPECT_FALSE(OfLogind({{"Type", "unspecified"}}, kNoSeat));
  EXPECT_TRUE(OfLogind({{"Type", "tty"}}));
  EXPECT_TRUE(OfLogind({{"Type", "x11"}, {"Remote", "yes"}}, kNoSeat)) << "a remote desktop";
}

TEST(UserSessions, AreThoseOfThisMachineInTheTableOfLogins) {
  const auto terminal = SessionOfLogin({"tty2", "alice", 1000, "", 5}, "tty2");
  ASSERT_TRUE(terminal);
  EXPECT_EQ(terminal->session.id, "tty2");
  EXPECT_EQ(terminal->session.userId, 1000u);
  EXPECT_FALSE(terminal->session.isGraphical);
  EXPECT_TRUE(terminal->session.isActive);
  EXPECT_FALSE(SessionOfLogin({"tty2", "alice", 1000, "", 5}, "tty1")->session.isActive);

  for (const LoginRecord& record :
       {LoginRecord{":0", "alice", 1000, "", 5}, LoginRecord{"tty7", "alice", 1000, ":0", 5}}) {
    const auto display = SessionOfLogin(record, "tty7");
    ASSERT_TRUE(display);
    EXPECT_TRUE(display->session.isGraphical);
    EXPECT_TRUE(display->session.isActive);
    EXPECT_EQ(display->session.display, ":0");
  }
  for (const char* const line : {"pts/3", "ttyS0", "tty", "ttyUSB0", "", ":", "ftpd1"})
    EXPECT_FALSE(SessionOfLogin({line, "alice", 1000, "", 5}, "")) << line;
}

TEST(UserSessions, HaveAnIdentifierAndAUser) {
  const auto sessions = UserSessions().value_or(std::vector<UserSession>());
  for (const UserSession& session : sessions) {
    EXPECT_FALSE(session.id.empty());
    EXPECT_FALSE(session.userName.empty());
  }
  EXPECT_EQ(IsUserLogged(), !sessions.empty());
}

TEST(IsUserAbsent, GoesByTheLimit) {
  EXPECT_EQ(GetAbsenceLimit(), std::chrono::minutes(10));
  EXPECT_FALSE(IsAbsentWhen("599999", "no"));
  EXPECT_TRUE(IsAbsentWhen("600000", "no"));
  const AbsenceLimit limit(milliseconds(5000));
  EXPECT_FALSE(IsAbsentWhen("4999", "no"));
  EXPECT_TRUE(IsAbsentWhen("5000", "no"));
  EXPECT_TRUE(IsAbsentWhen("18446744073709551615", "no"));
}

TEST(IsUserAbsent, IsTrueForALockedScreen) {
  EXPECT_TRUE(IsAbsentWhen("0", "yes"));
}

TEST(IsUserAbsent, IsFalseWhenNobodyTells) {
  EXPECT_FALSE(IsAbsentWhen({}));
  EXPECT_FALSE(IsAbsentWhen({{"screenLocked", "yes"}}));
  EXPECT_FALSE(IsAbsentWhen({{"idleMs", "999999999"}}));
  EXPECT_FALSE(IsAbsentWhen("999999999", "maybe"));
  EXPECT_FALSE(IsAbsentWhen("-1", "no"));
  EXPECT_FALSE(IsAbsentWhen("18446744073709551616", "no"));

  const TestPipe pipe;
  EXPECT_FALSE(ProxyUtils::IsUserAbsent(pipe.Name()));
  EXPECT_FALSE(ProxyUtils::IsUserAbsent(""));
  const ScriptedProxy proxy(pipe.Name(), ScriptedProxy::Refuses("absence"));
  EXPECT_FALSE(ProxyUtils::IsUserAbsent(pipe.Name()));
}

TEST(SysTray, HasTheProxyStartPrograms) {
  const TestPipe pipe;
  const ScriptedProxy proxy(pipe.Name());
  int asked = 0;
  SysTray tray([&] {
    ++asked;
    return ZelString(pipe.Name());
  });
  tray.ExecuteAsLoggedUser("\"/opt/a b/tool\" --now");
  EXPECT_EQ(*proxy.Last("run").Find("commandLine"), "\"/opt/a b/tool\" --now");
  tray.ExecuteAsLoggedUser("another");
  EXPECT_EQ(asked, 2) << "sessions come and go";
  EXPECT_EQ(proxy.Count("run"), 2u);
}

TEST(SysTray, BearsThatNobodyIsThere) {
  SysTray nobody([] { return ZelString(); });
  nobody.ExecuteAsLoggedUser("program");
  SysTray broken([]() -> ZelString { throw std::runtime_error("no name"); });
  broken.ExecuteAsLoggedUser("program");

  const TestPipe pipe;
  const ScriptedProxy proxy(pipe.Name(), ScriptedProxy::Refuses("run"));
  SysTray refused([&] { return ZelString(pipe.Name()); });
  refused.ExecuteAsLoggedUser("program");
  EXPECT_EQ(proxy.Count("run"), 1u);
}
