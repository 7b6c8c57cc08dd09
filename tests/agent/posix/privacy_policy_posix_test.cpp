// The privacy policy and links. The Windows build's run-time library makes none.

#include <filesystem>

#include "tests/agent/privacy_policy_files.h"

namespace {

class PrivacyPolicyLinks : public PrivacyPolicyFiles {
 protected:
  bool Link(const char* target, const char* link) const {
    std::error_code error;
    std::filesystem::create_symlink(Path(target), Path(link), error);
    return !error;
  }
};

TEST_F(PrivacyPolicyLinks, DoNotEvadeARule) {
  ASSERT_TRUE(Link("data/secret", "data/door"));
  ASSERT_TRUE(Link("data/secret/key.txt", "data/key"));
  ASSERT_TRUE(Link("data/secret/unborn", "data/dangling"));
  ASSERT_TRUE(Link("data/open.txt", "data/secret/link"));
  ASSERT_TRUE(Link("data", "other"));

  EXPECT_FALSE(MayBobRead(Path("data/door/key.txt")));
  EXPECT_FALSE(MayBobWrite(Path("data/door/new.txt")));
  EXPECT_FALSE(MayBobRead(Path("data/key")));
  EXPECT_FALSE(MayBobWrite(Path("data/dangling"))) << "writing would make the target";
  EXPECT_FALSE(MayBobWrite(Path("data/secret/link"))) << "the link itself lies in secret";
  EXPECT_TRUE(MayBobRead(Path("other/open.txt"))) << "links on the way are resolved";
  EXPECT_FALSE(MayBobRead(Path("other"))) << "the link itself lies outside data";
}

TEST_F(PrivacyPolicyLinks, AreLookedAtOnlyWhereARuleAsksForIt) {
  ASSERT_TRUE(Link("data/loop", "data/loop"));
  EXPECT_FALSE(MayBobRead(Path("data/loop"))) << "where it leads cannot be told";
  const PrivacyPolicy withoutRules({}, RoleOf);
  EXPECT_TRUE(withoutRules.IsGranted(Path("data/loop"), "root", true));
  EXPECT_FALSE(withoutRules.IsGranted(Path("data/loop"), "bob", true));
}

}  // namespace
