#include "agent/proxy_protocol/listener_rule.h"

#include <gmock/gmock.h>

#include <string>

using namespace proxy_protocol;
using testing::HasSubstr;

namespace {

const char* const kPipe = R"(\\.\pipe\zelproxy-2)";
const char* const kOther = R"(\\.\pipe\of-the-site)";

PipeOwner Alice() {
  return {"PC\\alice", false, false, 2, "PC\\alice"};
}

}  // namespace

TEST(PipeListener, MayBeTheUserOfThePipesSession) {
  EXPECT_EQ(WhyNotHeard(kPipe, Alice()), "");
  EXPECT_EQ(WhyNotHeard(kOther, Alice()), "");
  PipeOwner alice = Alice();
  alice.account = "pc\\Alice";
  EXPECT_EQ(WhyNotHeard(kPipe, alice), "");
}

TEST(PipeListener, MayBeTheSystemOrThisAccount) {
  PipeOwner system, ours;
  system.isSystem = true;
  ours.isOurs = true;
  ours.session = 7;
  EXPECT_EQ(WhyNotHeard(kPipe, system), "");
  EXPECT_EQ(WhyNotHeard(kPipe, ours), "");
}

TEST(PipeListener, MayNotBeTheUserOfAnotherSession) {
  const PipeOwner mallory{"PC\\mallory", false, false, 3, "PC\\mallory"};
  EXPECT_THAT(WhyNotHeard(kPipe, mallory), HasSubstr("PC\\mallory is in session 3"));
  EXPECT_EQ(WhyNotHeard(kOther, mallory), "") << "whose pipe it is the name does not tell";
}

TEST(PipeListener, MayNotBeAnotherAccountInTheSession) {
  PipeOwner mallory = Alice();
  mallory.account = "PC\\mallory";
  EXPECT_THAT(WhyNotHeard(kPipe, mallory), HasSubstr("is not the user of session 2"));
  EXPECT_THAT(WhyNotHeard(kOther, mallory), HasSubstr("is not the user of session 2"));
  mallory.account = "OTHER\\alice";
  EXPECT_THAT(WhyNotHeard(kPipe, mallory), HasSubstr("is not the user"));
  mallory.sessionUser = "";
  EXPECT_THAT(WhyNotHeard(kPipe, mallory), HasSubstr("is not the user"));
}

TEST(PipeListener, MayNotBeUnknown) {
  EXPECT_THAT(WhyNotHeard(kPipe, {}), HasSubstr("not known"));
}

TEST(SessionOfPipe, IsTheNumberInItsName) {
  EXPECT_EQ(SessionOfPipe(kPipe), 2u);
  EXPECT_EQ(SessionOfPipe(R"(\\.\PIPE\ZelProxy-10)"), 10u);
  for (const char* const name :
       {"", kOther, R"(\\.\pipe\zelproxy-)", R"(\\.\pipe\zelproxy-x)", R"(\\.\pipe\zelproxy-2x)",
        R"(\\.\pipe\zelproxy-4294967296)", R"(\\.\pipe\my-zelproxy-2)"})
    EXPECT_EQ(SessionOfPipe(name), std::nullopt) << name;
}
