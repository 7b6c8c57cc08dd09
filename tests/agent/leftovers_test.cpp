#include "agent/service/leftovers.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "tests/agent/temporary_directory.h"

namespace {

namespace fs = std::filesystem;

class Leftovers : public testing::Test {
 protected:
  Leftovers() : home_(directory_.Native()) {
    fs::create_directories(home_ / "config");
    fs::create_directories(home_ / "data" / "ZelCoreUtils" / "deeper");
  }
  fs::path Make(const char* path) {
    WriteFile(home_ / path, "content");
    return home_ / path;
  }

  const TemporaryDirectory directory_;
  const fs::path home_;
};

TEST_F(Leftovers, OfAKilledAgentGoWhereTheAgentItselfWrites) {
  const fs::path files[] = {Make("config/.zel-0123456789abcdef.tmp"),
                            Make("data/.zel-fedcba9876543210.tmp"),
                            Make("data/ZelCoreUtils/.zel-00000000ffffffff.tmp")};
  RemoveLeftovers(home_);
  for (const fs::path& file : files) EXPECT_FALSE(fs::exists(file)) << file;
}

TEST_F(Leftovers, AreNotWhatOnlyLooksAlike) {
  const fs::path files[] = {Make("config/.zel-0123456789abcde.tmp"),
                            Make("config/.zel-0123456789abcdef0.tmp"),
                            Make("config/.zel-0123456789ABCDEF.tmp"),
                            Make("config/zel-0123456789abcdeff.tmp"),
                            Make("config/.zel-0123456789abcdef.txt"),
                            Make("config/zelagent.ini"),
                            Make(".zel-0123456789abcdef.tmp"),
                            Make("data/ZelCoreUtils/deeper/.zel-0123456789abcdef.tmp")};
  const fs::path directory = home_ / "config" / ".zel-00000000deadbeef.tmp";
  fs::create_directory(directory);
  RemoveLeftovers(home_);
  for (const fs::path& file : files) EXPECT_TRUE(fs::exists(file)) << file;
  EXPECT_TRUE(fs::is_directory(directory));
}

TEST_F(Leftovers, OfAHomeThatIsNotThereAreNone) {
  RemoveLeftovers(home_ / "none");
  EXPECT_FALSE(fs::exists(home_ / "none"));
}

}  // namespace
