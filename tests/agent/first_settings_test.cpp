#include "agent/service/first_settings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <stdexcept>

#include "agent/libZelCore/settings.h"
#include "tests/agent/temporary_directory.h"

namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::IsEmpty;

class FirstSettingsTest : public testing::Test {
 protected:
  FirstSettingsTest() : home_(directory_.Native() / "home") {}

  fs::path File(const char* name, const std::string& content) {
    WriteFile(directory_.Native() / name, content);
    return directory_.Native() / name;
  }
  SettingsResult Load() const { return LoadSettings(home_ / "config" / "zelagent.ini"); }
  std::string Refusal(const FirstSettings& settings) const {
    try {
      WriteFirstSettings(home_, settings);
    } catch (const std::runtime_error& error) {
      return error.what();
    }
    return "none";
  }

  const TemporaryDirectory directory_;
  const fs::path home_;
};

TEST_F(FirstSettingsTest, SayWhatWasGivenAndKeepTheRest) {
  const fs::path secret = File("secret", "0123456789abcdef\n");
  const fs::path authority = File("ca.pem", "an authority");
  ASSERT_TRUE(WriteFirstSettings(home_, {"pc-1", 7999, "master.example.net", secret, authority}));
  const SettingsResult result = Load();
  EXPECT_THAT(result.errors, IsEmpty());
  EXPECT_THAT(result.warnings, IsEmpty());
  EXPECT_EQ(result.settings.agentName, "pc-1");
  EXPECT_EQ(result.settings.port, 7999);
  EXPECT_EQ(result.settings.masterAddress, "https://master.example.net:7460");
  EXPECT_EQ(result.settings.fleetSecret, "0123456789abcdef");
  EXPECT_EQ(result.settings.fleetCaFile, home_ / "config" / "fleet-ca.pem");
  EXPECT_EQ(result.settings.bindAddress, "127.0.0.1");
}

TEST_F(FirstSettingsTest, AreWrittenWithoutAnyValue) {
  ASSERT_TRUE(WriteFirstSettings(home_, {}));
  EXPECT_TRUE(fs::exists(home_ / "config" / "zelagent.ini"));
  EXPECT_THAT(Load().errors, IsEmpty());
}

TEST_F(FirstSettingsTest, LeaveThoseThatAreThere) {
  ASSERT_TRUE(WriteFirstSettings(home_, {.name = "first"}));
  EXPECT_FALSE(WriteFirstSettings(home_, {.name = "second"}));
  EXPECT_EQ(Load().settings.agentName, "first");
}

TEST_F(FirstSettingsTest, TakeTheMastersPortFromItsAddress) {
  const std::pair<const char*, const char*> cases[] = {
      {"m", "https://m:7460"},
      {"m:80", "https://m:80"},
      {"[2001:db8::1]", "https://[2001:db8::1]:7460"},
      {"[2001:db8::1]:80", "https://[2001:db8::1]:80"},
  };
  for (const auto& [master, address] : cases) {
    fs::remove_all(home_);
    ASSERT_TRUE(WriteFirstSettings(home_, {.master = master})) << master;
    EXPECT_EQ(Load().settings.masterAddress, address);
  }
}

TEST_F(FirstSettingsTest, AreRefusedAsAWholeForOneBadValue) {
  const fs::path secret = File("secret", "0123456789abcdef");
  EXPECT_THAT(Refusal({.name = "two words", .fleetSecretFile = secret}), HasSubstr("name"));
  EXPECT_THAT(Refusal({.master = "a/b", .fleetSecretFile = secret}), HasSubstr("[master]"));
  EXPECT_THAT(Refusal({.fleetSecretFile = File("short", "short")}), HasSubstr("16 characters"));
  EXPECT_THAT(Refusal({.fleetSecretFile = directory_.Native() / "missing"}), HasSubstr("missing"));
  EXPECT_TRUE(fs::is_empty(home_ / "config"));
}

TEST_F(FirstSettingsTest, CannotBringKeysOfTheirOwn) {
  EXPECT_THAT(Refusal({.name = "pc-1\n[http]\nallow_plain = yes"}), HasSubstr("one line"));
  EXPECT_THAT(Refusal({.master = "m\r[http]"}), HasSubstr("one line"));
  EXPECT_FALSE(fs::exists(home_ / "config"));
}

TEST_F(FirstSettingsTest, DoNotReplaceASecretThatIsThere) {
  const fs::path secret = File("secret", "0123456789abcdef");
  fs::create_directories(home_ / "config");
  WriteFile(home_ / "config" / "fleet.secret", "an older secret, kept");
  EXPECT_THAT(Refusal({.fleetSecretFile = secret}), HasSubstr("fleet.secret"));
  std::ifstream kept(home_ / "config" / "fleet.secret");
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(kept), {}), "an older secret, kept");
}

}  // namespace
