#include "agent/libZelCore/settings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/agent/temporary_directory.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

SettingsResult Parse(std::string_view text) {
  return ParseSettings(text, "/home/config");
}

TEST(Settings, AreTheDefaultsWithoutAFile) {
  const TemporaryDirectory directory;
  const SettingsResult result = LoadSettings(directory.Native() / "zelagent.ini");
  EXPECT_THAT(result.errors, IsEmpty());
  EXPECT_THAT(result.warnings, IsEmpty());
  EXPECT_EQ(result.settings.port, 7460);
  EXPECT_EQ(result.settings.bindAddress, "127.0.0.1");
  EXPECT_FALSE(result.settings.agentName.empty());
  EXPECT_EQ(result.settings.drives.at('C'), "/");
  EXPECT_EQ(result.settings.codePage, 1252u);
  EXPECT_THAT(result.settings.administratorsOnly,
              ElementsAre("CoreUtilsRunScript", "CoreUtilsTerminateProcess"));
  EXPECT_EQ(result.settings.proxyPipe, "");
}

TEST(Settings, TakeActionsForAdministratorsInAnyOrder) {
  const auto reserved = [](const std::string& value) {
    return Parse("[actions]\nadministrators_only =" + value).settings.administratorsOnly;
  };
  EXPECT_THAT(reserved(" B ,A,  C"), ElementsAre("A", "B", "C"));
  EXPECT_THAT(reserved("A"), ElementsAre("A"));
  EXPECT_THAT(reserved(""), IsEmpty());
}

TEST(Settings, TakeEveryKeyOver) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native() / "secret", "0123456789abcdef\r\n");
  const SettingsResult result = ParseSettings(
      "\xEF\xBB\xBF# comment\r\n; comment\r\n"
      "[agent]\r\nname = pc-1\r\n[drives]\nC = /c\nd: = /mnt/d\n"
      "[system]\ncode_page = 932\n"
      "[http]\naddress = ::1\nport = 0\ntls = yes\ncertificate = a.pem\nprivate_key = b.pem\n"
      "allow_plain = yes\nmax_body_bytes = 2048\nmax_connections = 5\nrequest_timeout_ms = 100\n"
      "idle_timeout_ms = 200\ncredential_memory_ms = 0\n"
      "[actions]\nmax_threads = 3\nmax_queued = 0\nadministrators_only = X\n"
      "[proxy]\npipe = /run/zelproxy.sock\n"
      "[fleet]\nsecret_file = secret\nca = ca.pem\ntimeout_ms = 5\nconnect_timeout_ms = 6\n"
      "allow_plain = yes\n[master]\naddress = https://master:7460\n"
      "[log]\nlevel = detail\nrotate_bytes = 4096\nkept_files = 2\n",
      directory.Native());
  EXPECT_THAT(result.errors, IsEmpty());
  const Settings& settings = result.settings;
  EXPECT_EQ(settings.agentName, "pc-1");
  EXPECT_EQ(settings.drives, (std::map<char, std::string>{{'C', "/c"}, {'D', "/mnt/d"}}));
  EXPECT_EQ(settings.codePage, 932u);
  EXPECT_EQ(settings.bindAddress, "::1");
  EXPECT_EQ(settings.port, 0);
  EXPECT_TRUE(settings.tls);
  EXPECT_EQ(settings.certificateFile, directory.Native() / "a.pem");
  EXPECT_EQ(settings.privateKeyFile, directory.Native() / "b.pem");
  EXPECT_TRUE(settings.allowPlainRemote);
  EXPECT_EQ(settings.maxBodyBytes, 2048u);
  EXPECT_EQ(settings.maxConnections, 5u);
  EXPECT_EQ(settings.requestTimeoutMs, 100u);
  EXPECT_EQ(settings.idleTimeoutMs, 200u);
  EXPECT_EQ(settings.credentialMemoryMs, 0u);
  EXPECT_EQ(settings.maxThreads, 3u);
  EXPECT_EQ(settings.maxQueued, 0u);
  EXPECT_THAT(settings.administratorsOnly, ElementsAre("X"));
  EXPECT_EQ(settings.proxyPipe, "/run/zelproxy.sock");
  EXPECT_EQ(settings.fleetSecret, "0123456789abcdef");
  EXPECT_EQ(settings.fleetCaFile, directory.Native() / "ca.pem");
  EXPECT_EQ(settings.remoteTimeoutMs, 5u);
  EXPECT_EQ(settings.connectTimeoutMs, 6u);
  EXPECT_TRUE(settings.fleetAllowPlain);
  EXPECT_EQ(settings.masterAddress, "https://master:7460");
  EXPECT_EQ(settings.logLevel, ZelDebugLevel::kDetail);
  EXPECT_EQ(settings.logRotateBytes, 4096u);
  EXPECT_EQ(settings.logKeptFiles, 2u);
}

TEST(Settings, WarnOfUnknownNamesWithTheirLineAndTheNearestKnownOne) {
  const SettingsResult result = Parse("[htpp]\nx = 1\n[http]\nprot = 7\nzebrafish = 1\n");
  EXPECT_THAT(result.errors, IsEmpty());
  EXPECT_THAT(result.warnings,
              ElementsAre("line 1: unknown section [htpp] (did you mean \"http\"?)",
                          "line 4: unknown key \"prot\" in section [http] (did you mean \"port\"?)",
                          "line 5: unknown key \"zebrafish\" in section [http]"));
}

TEST(Settings, RefuseEachUnusableValueNamingItsLine) {
  for (const char* text : {"[http]\nport = 65536",
                           "[http]\nport = -1",
                           "[http]\nport = 80x",
                           "[http]\nport =",
                           "[http]\ntls = maybe",
                           "[http]\naddress = example.com",
                           "[agent]\nname = a b",
                           "[agent]\nname = a:b",
                           "[master]\naddress = ftp://x",
                           "[master]\naddress = http://u:p@x",
                           "[master]\naddress = https://x/path",
                           "[log]\nlevel = loud",
                           "[fleet]\nsecret_file = none",
                           "[drives]\nCC = /x",
                           "[system]\ncode_page = utf-8",
                           "[system]\ncode_page = 0",
                           "[system]\ncode_page = 4711",
                           "[drives]\nC = x",
                           "[privacy]\nrule1 = bob, /x",
                           "[privacy]\nrule1 = bob, x, read",
                           "[privacy]\nrule1 = bob, /x, all",
                           "[privacy]\nrule1 = , /x, read",
                           "[privacy]\nrulex = bob, /x, read",
                           "[http]\nno equals",
                           "[http]\n= 1",
                           "[actions]\n[",
                           "[actions]\nadministrators_only = A B",
                           "[actions]\nadministrators_only = A,, B",
                           "[actions]\nadministrators_only = ,",
                           "[http]\nmax_body_bytes = 99999999999999999999999"}) {
    const SettingsResult result = Parse(text);
    ASSERT_EQ(result.errors.size(), 1u) << text;
    EXPECT_THAT(result.errors[0], HasSubstr("line 2: ")) << text;
  }
}

TEST(Settings, RefuseAKeyThatIsSetTwiceAndOneOutsideAnySection) {
  EXPECT_THAT(Parse("[http]\nport = 1\nport = 2\n").errors,
              ElementsAre("line 3: \"port\" is set already in line 2"));
  EXPECT_THAT(Parse("port = 1\n").errors,
              ElementsAre("line 1: \"port\" stands outside any section"));
}

TEST(Settings, RefuseTlsWithoutACertificate) {
  EXPECT_EQ(Parse("[http]\ntls = yes\n").errors.size(), 1u);
}

TEST(Settings, RefuseAShortFleetSecret) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native() / "secret", "short\n");
  const SettingsResult result =
      ParseSettings("[fleet]\nsecret_file = secret\n", directory.Native());
  EXPECT_EQ(result.errors.size(), 1u);
  EXPECT_TRUE(result.settings.fleetSecret.empty());
}

TEST(Settings, OrderPrivacyRulesByNumberAndLetPatternsHoldCommas) {
  const SettingsResult result = Parse(
      "[privacy]\nrule10 = *, **, none\nrule2 = \"\", C:\\a, b\\**, readwrite\n"
      "rule1 = role:helpdesk, /srv/*.txt, read\n");
  EXPECT_THAT(result.errors, IsEmpty());
  const std::vector<PrivacyRule>& rules = result.settings.privacyRules;
  ASSERT_EQ(rules.size(), 3u);
  EXPECT_EQ(rules[0].login, "role:helpdesk");
  EXPECT_TRUE(rules[0].mayRead && !rules[0].mayWrite);
  EXPECT_EQ(rules[1].login, "");
  EXPECT_EQ(rules[1].pattern, "C:\\a, b\\**");
  EXPECT_TRUE(rules[1].mayRead && rules[1].mayWrite);
  EXPECT_EQ(rules[2].login, "*");
  EXPECT_FALSE(rules[2].mayRead || rules[2].mayWrite);
}

}  // namespace
