#include "agent/libZelCore/calling_user.h"

#include <gtest/gtest.h>

#include "agent/libZelCore/agent_core.h"
#include "agent/libZelCore/credentials.h"
#include "agent/libZelCore/invocation_depth.h"
#include "tests/agent/temporary_directory.h"

namespace {

ZelContainer RequestSaying(const ZelString& login, bool isAdministrator) {
  ZelContainer said, request;
  said.SetString("Login", login, kNoIndex);
  said.SetBool("Administrator", isAdministrator, kNoIndex);
  request.SetContainer(kCallingUserKey, said, kNoIndex);
  request.SetString("Other", "stays", kNoIndex);
  return request;
}

ZelContainer NothingSaid() {
  ZelContainer request;
  request.SetString("Other", "stays", kNoIndex);
  return request;
}

CallingUser TakeFrom(const std::string& owner, ZelContainer request) {
  const InvocationContext context(1, owner);
  const CallingUser user = TakeCallingUser(&request);
  EXPECT_EQ(request, NothingSaid());
  return user;
}

void ExpectUser(const CallingUser& user, const char* agent, const std::string& login,
                bool isAdministrator) {
  EXPECT_EQ(user.agent, agent);
  EXPECT_EQ(user.login, login);
  EXPECT_EQ(user.isAdministrator, isAdministrator);
}

class CallingUserTest : public testing::Test {
 protected:
  CallingUserTest() {
    const std::filesystem::path config = home_.Native() / "home" / "config";
    std::filesystem::create_directories(config);
    WriteFile(config / "zelagent.ini", "[agent]\nname = here-1\n");
    UserStore users(config / "users");
    users.Add("boss", kAdministrator, "a password");
    users.Add("ann", "helpdesk", "a password");
    core_ = std::make_unique<AgentCore>(AgentOptions{home_.Native() / "home", uint16_t{0}});
  }

  /// What this agent says when `owner` has called it and it asks another one.
  static ZelContainer SaidFor(const std::string& owner, ZelContainer request) {
    const InvocationContext context(0, owner);
    SetCallingUser(&request);
    return request;
  }

  TemporaryDirectory home_;
  std::unique_ptr<AgentCore> core_;
};

TEST(CallingUser, IsNobodyWithoutAnAgentHere) {
  ExpectUser(TakeFrom("agent/pc-1", RequestSaying("ann", true)), "", "", false);
  ExpectUser(TakeFrom("", RequestSaying("ann", true)), "", "", false);
  ZelContainer request = RequestSaying("ann", true);
  SetCallingUser(&request);
  EXPECT_EQ(request, NothingSaid());
}

TEST_F(CallingUserTest, IsWhomAnotherAgentSays) {
  ExpectUser(TakeFrom("agent/pc-1", RequestSaying("ann", false)), "pc-1", "ann", false);
  ExpectUser(TakeFrom("agent/pc-1", RequestSaying("ann", true)), "pc-1", "ann", true);
  ExpectUser(TakeFrom("agent/pc-1", RequestSaying("", true)), "pc-1", "", true);
  ExpectUser(TakeFrom("agent/pc-1", NothingSaid()), "pc-1", "", false);
}

TEST_F(CallingUserTest, IsNobodyWhereWhatIsSaidIsOfAnotherForm) {
  const std::string longest(256, 'x');
  ExpectUser(TakeFrom("agent/pc-1", RequestSaying(longest, true)), "pc-1", longest, true);
  for (const std::string& login : {std::string(257, 'x'), std::string("a b"), std::string("a\nb"),
                                   std::string("a\0b", 3), std::string("\xC3\xA4")})
    ExpectUser(TakeFrom("agent/pc-1", RequestSaying(login, true)), "pc-1", "", false);

  ZelContainer text = NothingSaid();
  text.SetString(kCallingUserKey, "ann", kNoIndex);
  ExpectUser(TakeFrom("agent/pc-1", text), "pc-1", "", false);

  for (const bool isLogin : {true, false}) {
    ZelContainer half;
    if (isLogin) {
      half.SetString("Login", "ann", kNoIndex);
    } else {
      half.SetBool("Administrator", true, kNoIndex);
    }
    ZelContainer request = NothingSaid();
    request.SetContainer(kCallingUserKey, half, kNoIndex);
    ExpectUser(TakeFrom("agent/pc-1", request), "pc-1", "", false);
  }
  ZelContainer wrongType;
  wrongType.SetString("Login", "ann", kNoIndex);
  wrongType.SetInt32("Administrator", 1, kNoIndex);
  ZelContainer request = NothingSaid();
  request.SetContainer(kCallingUserKey, wrongType, kNoIndex);
  ExpectUser(TakeFrom("agent/pc-1", request), "pc-1", "", false);
}

TEST_F(CallingUserTest, IsTheConsoleUserHereWhateverTheRequestSays) {
  ExpectUser(TakeFrom("boss", NothingSaid()), "here-1", "boss", true);
  ExpectUser(TakeFrom("ann", NothingSaid()), "here-1", "ann", false);
  ExpectUser(TakeFrom("ann", RequestSaying("boss", true)), "here-1", "ann", false);
  ExpectUser(TakeFrom("gone", RequestSaying("boss", true)), "here-1", "gone", false);
}

TEST_F(CallingUserTest, IsThisAgentAsTheAdministratorWhereNobodyCalled) {
  ExpectUser(TakeFrom("", NothingSaid()), "here-1", "", true);
  ExpectUser(TakeFrom("", RequestSaying("ann", false)), "here-1", "", true);
}

TEST_F(CallingUserTest, IsVouchedForByTheAgentThatAskedFirst) {
  EXPECT_EQ(SaidFor("boss", NothingSaid()), RequestSaying("boss", true));
  EXPECT_EQ(SaidFor("ann", NothingSaid()), RequestSaying("ann", false));
  EXPECT_EQ(SaidFor("", NothingSaid()), RequestSaying("", true));
  EXPECT_EQ(SaidFor("agent/pc-1", NothingSaid()), NothingSaid());
}

TEST_F(CallingUserTest, IsNeverWhomTheRequestNamedBefore) {
  EXPECT_EQ(SaidFor("ann", RequestSaying("boss", true)), RequestSaying("ann", false));
  EXPECT_EQ(SaidFor("agent/pc-1", RequestSaying("boss", true)), NothingSaid());
}

}  // namespace
