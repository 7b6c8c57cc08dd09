#include "agent/libZelCore/privacy_policy.h"

#include <gtest/gtest.h>

#include "tests/agent/privacy_policy_files.h"

namespace {

TEST(PrivacyPolicy, GrantsEverythingToAdministratorsAndLocalCallsByDefault) {
  const PrivacyPolicy policy({}, RoleOf);
  for (const bool isRead : {true, false}) {
    EXPECT_TRUE(policy.IsGranted("C:\\x", "root", isRead));
    EXPECT_TRUE(policy.IsGranted("C:\\x", "", isRead));
    EXPECT_FALSE(policy.IsGranted("C:\\x", "helen", isRead));
    EXPECT_FALSE(policy.IsGranted("C:\\x", "nobody", isRead));
  }
}

TEST(PrivacyPolicy, TakesTheFirstRuleThatMatches) {
  const PrivacyPolicy policy({Rule("role:helpdesk", "C:\\zel-a\\**", true, false),
                              Rule("", "C:/zel-a/x", false, true), Rule("*", "**", false, false)},
                             RoleOf);
  EXPECT_TRUE(policy.IsGranted("C:/zel-a/x", "helen", true));
  EXPECT_FALSE(policy.IsGranted("C:/zel-a/x", "helen", false));
  EXPECT_FALSE(policy.IsGranted("C:/zel-a/x", "", true));
  EXPECT_TRUE(policy.IsGranted("C:/zel-a/x", "", false));
  EXPECT_FALSE(policy.IsGranted("C:/zel-b", "root", true)) << "* is everyone";
  EXPECT_FALSE(policy.IsGranted("C:/zel-b", "", true)) << "* is everyone";
}

TEST(PrivacyPolicy, RefusesWhatIsNoPath) {
  const PrivacyPolicy policy({}, RoleOf);
  EXPECT_FALSE(policy.IsGranted("", "root", true));
  EXPECT_FALSE(policy.IsGranted(std::string_view("C:\\a\0b", 6), "root", true));
}

TEST(PrivacyPolicy, AnswersThePrivacyCheckWithItsVerdicts) {
  const PrivacyPolicy policy({}, RoleOf);
  const auto check = [&](const char* kind, const char* login, const char* access) {
    ZelContainer request;
    request.SetString("Class", kind, kNoIndex);
    request.SetString("Name", "C:\\x", kNoIndex);
    request.SetString("Login", login, kNoIndex);
    request.SetString("Access", access, kNoIndex);
    EXPECT_EQ(policy.Check(&request), 0u);
    EXPECT_EQ(request.CountKeys(), 1u);
    int32_t result = -1;
    EXPECT_TRUE(request.GetInt32("Result", &result, kNoIndex));
    return result;
  };
  EXPECT_EQ(check("File System", "root", "Read"), 1);
  EXPECT_EQ(check("File System", "root", "Write"), 3);
  EXPECT_EQ(check("File System", "helen", "Read"), 0);
  EXPECT_EQ(check("Registry", "root", "Read"), 0);
  EXPECT_EQ(check("File System", "root", "read"), 0);
  EXPECT_EQ(check("File System", "root", ""), 0);
}

TEST_F(PrivacyPolicyFiles, CoverTheDirectoryItself) {
  EXPECT_TRUE(MayBobRead(Path("data")));
  EXPECT_FALSE(MayBobWrite(Path("data/secret")));
  EXPECT_FALSE(MayBobWrite(Path("data/secret/")));
  EXPECT_TRUE(MayBobRead(Path("data/secretary"))) << "a longer name is another one";
}

TEST_F(PrivacyPolicyFiles, AreNotEvadedByTheTextOfThePath) {
  EXPECT_TRUE(MayBobRead(Path("data/open.txt")));
  EXPECT_FALSE(MayBobRead(Path("data/secret/key.txt")));
  EXPECT_FALSE(MayBobRead(Path("data\\secret\\key.txt")));
  EXPECT_FALSE(MayBobRead(Path("data/./secret//key.txt")));
  EXPECT_FALSE(MayBobRead(Path("data/x/../secret/key.txt")));
  EXPECT_FALSE(MayBobWrite(Path("data/secret/new/er")));
  EXPECT_FALSE(MayBobRead(Path("data/../outside")));
}

TEST_F(PrivacyPolicyFiles, LookThroughQuotesAroundAPathAndRefuseOthers) {
  EXPECT_TRUE(MayBobRead('"' + Path("data/open.txt") + '"'));
  EXPECT_FALSE(MayBobRead('"' + Path("data/secret/key.txt") + '"'));
  // A command line made of these would start with another program than the path leads to.
  EXPECT_FALSE(MayBobWrite("/bin/sh /../.." + Path("data/open.txt") + '"'));
  EXPECT_FALSE(MayBobWrite("\"/bin/sh\" /../.." + Path("data/open.txt") + '"'));
  EXPECT_FALSE(MayBobWrite(Path("data/x") + "\" y"));
  EXPECT_TRUE(policy_.IsGranted("\"" + Path("data/open.txt") + "\"", "bob", false));
}

TEST_F(PrivacyPolicyFiles, RefusePathsThatAreNotFull) {
  const std::filesystem::path before = std::filesystem::current_path();
  std::filesystem::current_path(directory_.Native() / "data");
  EXPECT_FALSE(MayBobRead("open.txt"));
  EXPECT_FALSE(MayBobWrite("sh"));
  EXPECT_FALSE(MayBobRead("./open.txt"));
  EXPECT_FALSE(MayBobRead("C:open.txt"));
  EXPECT_TRUE(MayBobRead(Path("data/open.txt")));
  EXPECT_TRUE(PrivacyPolicy({}, RoleOf).IsGranted("open.txt", "root", false)) << "without a rule";
  std::filesystem::current_path(before);
}

TEST(PathPattern, MatchesOneNameWithOneStarAndAnyDepthWithTwo) {
  EXPECT_TRUE(MatchesPathPattern("*.txt", "a.txt"));
  EXPECT_FALSE(MatchesPathPattern("*.txt", "a/b.txt"));
  EXPECT_TRUE(MatchesPathPattern("**.txt", "a/b.txt"));
  EXPECT_TRUE(MatchesPathPattern("a*/c", "ab/c"));
  EXPECT_FALSE(MatchesPathPattern("a*/c", "a/b/c"));
  EXPECT_TRUE(MatchesPathPattern("**", ""));
  EXPECT_TRUE(MatchesPathPattern("*", ""));
  EXPECT_FALSE(MatchesPathPattern("", "a"));
  EXPECT_TRUE(MatchesPathPattern("", ""));
}

TEST(PathPattern, TakesNoLongTimeForHostileText) {
  std::string pattern;
  for (int i = 0; i < 50; ++i) pattern += "*a";
  EXPECT_FALSE(MatchesPathPattern(pattern, std::string(30000, 'a') + "b"));
}

}  // namespace
