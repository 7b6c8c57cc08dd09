#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "agent/libZelCore/alias_table.h"
#include "tests/agent/temporary_directory.h"

namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

class AliasLinksTest : public testing::Test {
 protected:
  AliasLinksTest() {
    for (const char* name : {"home/config", "home/data", "target"})
      fs::create_directories(root_.Native() / name);
  }
  std::string Add(const ZelString& directory) {
    return table_.Add({"agent/a", "x", directory, {}, false});
  }

  TemporaryDirectory root_;
  AliasTable table_{root_.Native() / "home",
                    root_.Native() / "home" / "data",
                    {{root_.Native() / "keys/agent.key", "private key"}},
                    std::chrono::hours(1)};
};

TEST_F(AliasLinksTest, AreFollowedBeforeThePathIsJudged) {
  fs::create_directory_symlink(root_.Native() / "home/config", root_.Native() / "link");
  EXPECT_THAT(Add(root_ / "link"), HasSubstr("the agent's own"));
  EXPECT_THAT(Add(root_ / "link/new"), HasSubstr("the agent's own"));
  fs::create_directory_symlink("../config", root_.Native() / "home/data/link");
  EXPECT_THAT(Add(root_ / "home/data/link"), HasSubstr("the agent's own"));
}

TEST_F(AliasLinksTest, LeadToWhereTheyLedWhenTheAliasWasMade) {
  fs::create_directory_symlink(root_.Native() / "target", root_.Native() / "link");
  EXPECT_EQ(Add(root_ / "link"), "");
  std::string problem;
  const auto upload = table_.BeginUpload("agent/a", "x", &problem);
  ASSERT_TRUE(upload) << problem;
  EXPECT_EQ(upload->Directory().filename(), "target") << "what follows cannot be led astray";

  for (const char* other : {"home/config", "home/data"}) {
    fs::remove(root_.Native() / "link");
    fs::create_directory_symlink(root_.Native() / other, root_.Native() / "link");
    EXPECT_FALSE(table_.BeginUpload("agent/a", "x", &problem)) << other;
    EXPECT_NE(problem, "") << other;
  }
}

TEST_F(AliasLinksTest, MayLeadNeitherToAGuardedFileNorToALinkToIt) {
  for (const char* name : {"keys", "store", "other"}) fs::create_directory(root_.Native() / name);
  WriteFile(root_.Native() / "store/real.key", "");
  fs::create_symlink("../store/real.key", root_.Native() / "keys/agent.key");
  fs::create_directory_symlink(root_.Native() / "store", root_.Native() / "alsoStore");
  for (const char* name : {"keys", "store", "alsoStore"})
    EXPECT_EQ(Add(root_ / name), "the directory holds the agent's private key") << name;
  EXPECT_EQ(Add(root_ / "other"), "");
}

TEST_F(AliasLinksTest, ThatTurnInACircleAreRefused) {
  fs::create_directory_symlink(root_.Native() / "b", root_.Native() / "a");
  fs::create_directory_symlink(root_.Native() / "a", root_.Native() / "b");
  EXPECT_NE(Add(root_ / "a/x"), "");
}

TEST_F(AliasLinksTest, MayNotLeadToNamesWithABackslash) {
  // Taken as separators, the backslashes would make it the agent's configuration.
  const std::string name = "a\\..\\home\\config";
  fs::create_directory(root_.Native() / name);
  fs::create_directory_symlink(root_.Native() / name, root_.Native() / "link");
  EXPECT_THAT(Add(root_ / "link"), HasSubstr("backslash"));
}

TEST_F(AliasLinksTest, AreResolvedForTheAgentsOwnDirectoriesToo) {
  fs::create_directory_symlink(root_.Native() / "home", root_.Native() / "alsoHome");
  AliasTable table(root_.Native() / "alsoHome", root_.Native() / "alsoHome/data", {},
                   std::chrono::hours(1));
  EXPECT_THAT(table.Add({"agent/a", "x", root_ / "home/config", {}, false}),
              HasSubstr("the agent's own"));
  EXPECT_EQ(table.Add({"agent/a", "x", root_ / "home/data", {}, false}), "");
}

}  // namespace
