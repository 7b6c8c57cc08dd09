#include "agent/libZelCore/core_actions.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>
#include <optional>
#include <string>

#include "agent/libZel/network/name_lookup.h"
#include "agent/libZel/progress.h"
#include "agent/libZelCore/invocation_depth.h"
#include "agent/libZelCore/local_address.h"
#include "tests/agent/library_log.h"
#include "tests/agent/temporary_directory.h"

namespace {

using testing::HasSubstr;

class CoreActionsTest : public testing::Test {
 protected:
  CoreActionsTest() {
    for (const char* name : {"config", "data"})
      std::filesystem::create_directories(root_.Native() / "home" / name);
    settings_.bindAddress = "192.0.2.1";
    const CoreParts parts{settings_, "/data/",   "/config/", "0f8fad5b-d9cb-469f-a165-70867728950e",
                          policy_,   inventory_, aliases_,   [] { return uint16_t{4711}; }};
    RegisterCoreActions(parts, &actions_, actions_.AddOwner("libZelCore"));
  }

  uint32_t Invoke(const char* action, ZelContainer* parameters) {
    return actions_.Invoke(action, parameters);
  }
  uint32_t InvokeAs(const std::string& owner, const char* action, ZelContainer* parameters) {
    const InvocationContext context(0, owner);
    return actions_.Invoke(action, parameters);
  }
  std::string OwnAddress() {
    ZelContainer answer;
    EXPECT_EQ(Invoke("AgentGetIPAddress", &answer), 0u);
    return Text(answer, "IPAddress");
  }
  ZelContainer Alias(const char* name, const ZelString& path) {
    ZelContainer request;
    request.SetString("AliasName", name, kNoIndex);
    request.SetString("AliasPath", path, kNoIndex);
    request.SetBool("AliasTemporary", false, kNoIndex);
    return request;
  }
  ZelContainer Alias(const char* name) { return Alias(name, root_ / "target"); }

  static std::string Text(const ZelContainer& container, const char* key) {
    ZelString value;
    EXPECT_TRUE(container.GetString(key, &value, kNoIndex)) << key;
    return std::string(value.Utf8());
  }
  static int64_t Number(const ZelContainer& container, const char* key) {
    int64_t value = -1;
    EXPECT_TRUE(container.GetInt64(key, &value, kNoIndex)) << key;
    return value;
  }
  static bool Flag(const ZelContainer& container, const char* key) {
    bool value = false;
    EXPECT_TRUE(container.GetBool(key, &value, kNoIndex)) << key;
    return value;
  }
  static ZelContainer Values(const ZelContainer& container, uint32_t index = kNoIndex) {
    ZelContainer values;
    EXPECT_TRUE(container.GetContainer("Values", &values, index));
    return values;
  }

  TemporaryDirectory root_;
  Settings settings_;
  PrivacyPolicy policy_{{{"bob", "**target**", true, true}, {"eve", "**target**", true, false}},
                        [](std::string_view login) -> std::optional<std::string> {
                          return login == "admin" ? "administrator" : "helpdesk";
                        }};
  ApplicationInventory inventory_{root_.Native() / "applications.ini"};
  AliasTable aliases_{
      root_.Native() / "home", root_.Native() / "home" / "data", {}, std::chrono::hours(1)};
  ActionDatabase actions_;
};

TEST_F(CoreActionsTest, TellTheRelay) {
  settings_.relayHost = "relay.example.net";
  settings_.relayPort = 7461;
  settings_.relayGuid = "{9}";
  ZelContainer answer;
  answer.SetInt32("Unasked", 1, kNoIndex);
  EXPECT_EQ(Invoke("RelayGetValues", &answer), 0u);
  EXPECT_EQ(answer.CountKeys(), 1u);
  const ZelContainer values = Values(answer);
  EXPECT_EQ(values.CountKeys(), 3u);
  EXPECT_EQ(Text(values, "ParentName"), "relay.example.net");
  EXPECT_EQ(Number(values, "ParentPort"), 7461);
  EXPECT_EQ(values.EntryAt(1).Type(), ZelValueType::kInt32);
  EXPECT_EQ(Text(values, "ParentGuid"), "{9}");
}

TEST_F(CoreActionsTest, TellNothingWithoutARelay) {
  ZelContainer answer;
  answer.SetInt32("Unasked", 1, kNoIndex);
  EXPECT_EQ(Invoke("RelayGetValues", &answer), 1u);
  EXPECT_EQ(answer.CountKeys(), 0u);
}

TEST_F(CoreActionsTest, TellTheHttpProtocolUnderBothNames) {
  settings_.tls = true;
  for (const char* action : {"HttpProtocolGetParams", "HttpProtocolGetValues"}) {
    ZelContainer answer;
    EXPECT_EQ(Invoke(action, &answer), 0u);
    EXPECT_EQ(answer.CountKeys(), 1u);
    const ZelContainer values = Values(answer);
    EXPECT_EQ(values.CountKeys(), 3u);
    EXPECT_EQ(Number(values, "Port"), 4711);
    EXPECT_EQ(values.EntryAt(0).Type(), ZelValueType::kInt32);
    EXPECT_EQ(Text(values, "Address"), "192.0.2.1");
    EXPECT_TRUE(Flag(values, "Ssl"));
  }
}

TEST_F(CoreActionsTest, TellTheIdentityAndNothingElse) {
  ZelContainer answer;
  answer.SetInt32("Unasked", 1, kNoIndex);
  EXPECT_EQ(Invoke("IdentityGetGUID", &answer), 0u);
  EXPECT_EQ(answer.CountKeys(), 1u);
  EXPECT_EQ(Text(answer, "GUID"), "0f8fad5b-d9cb-469f-a165-70867728950e");
}

TEST_F(CoreActionsTest, TellTheAddressThatTheAgentListensAt) {
  EXPECT_EQ(OwnAddress(), "192.0.2.1");
}

TEST_F(CoreActionsTest, TellTheAddressTowardsTheRelayWhereTheAgentListensAtAll) {
  settings_.bindAddress = "0.0.0.0";
  settings_.relayHost = "127.0.0.1";
  EXPECT_EQ(OwnAddress(), "127.0.0.1");
  settings_.bindAddress = "::";
  settings_.relayHost = "[::1]";
  EXPECT_EQ(OwnAddress(), "::1");
}

TEST_F(CoreActionsTest, TellSomeAddressInAnyCase) {
  settings_.bindAddress = "0.0.0.0";
  const std::string first = FirstAddress();
  EXPECT_EQ(OwnAddress(), first.empty() ? "127.0.0.1" : first);
  EXPECT_FALSE(IsWildcardAddress(OwnAddress()));
}

TEST(LocalAddress, IsThatOfTheWayToTheHost) {
  EXPECT_EQ(LocalAddressTowards("127.0.0.1"), "127.0.0.1");
  EXPECT_EQ(LocalAddressTowards("[::1]"), "::1");
  EXPECT_EQ(LocalAddressTowards("no host"), "");
}

TEST(LocalAddress, IsLookedForAlsoWhileProbesAreStuck) {
  constexpr int kMaxOfProbes = 64;
  std::promise<void> isOver;
  const NameService stuck = [end = isOver.get_future().share()](const std::string&, AddressKind) {
    end.wait();
    return NameAnswer();
  };
  for (int i = 0; i < kMaxOfProbes; ++i) {
    LookUpHostWith(stuck, "host" + std::to_string(i), AddressKind::kAny, {});
  }
  LibraryLogText log;
  EXPECT_THAT(LookUpHostWith(stuck, "other", AddressKind::kAny, {}), testing::IsEmpty());
  EXPECT_THAT(log.Text(), testing::HasSubstr("\"other\": the name service is still busy"));
  EXPECT_EQ(LocalAddressTowards("no host"), "");
  EXPECT_THAT(log.Text(),
              testing::Not(testing::HasSubstr("\"no host\": the name service is still")));
  isOver.set_value();
}

TEST(LocalAddress, KnowsWildcards) {
  for (const char* text : {"0.0.0.0", "::", "0:0::0"}) EXPECT_TRUE(IsWildcardAddress(text)) << text;
  for (const char* text : {"127.0.0.1", "::1", "", "x"}) EXPECT_FALSE(IsWildcardAddress(text));
}

TEST_F(CoreActionsTest, MakeAliasesOfWhoeverAsks) {
  ZelContainer request = Alias("backup1");
  request.SetString("ServerName", "BackupRestore", kNoIndex);
  const ZelContainer before = request;
  EXPECT_EQ(InvokeAs("agent/pc-1", "HttpProtocolAddAlias", &request), 0u);
  EXPECT_EQ(request, before);

  std::string problem;
  EXPECT_TRUE(aliases_.BeginUpload("agent/pc-1", "backup1", &problem)) << problem;
  EXPECT_EQ(InvokeAs("agent/pc-2", "HttpProtocolDeleteAlias", &request), 1u);
  EXPECT_EQ(InvokeAs("agent/pc-1", "HttpProtocolDeleteAlias", &request), 0u);
  EXPECT_FALSE(aliases_.BeginUpload("agent/pc-1", "backup1", &problem));
  EXPECT_EQ(InvokeAs("agent/pc-1", "HttpProtocolDeleteAlias", &request), 1u);
}

TEST_F(CoreActionsTest, SayWhyAnAliasIsRefusedAndChangeNothingElse) {
  for (ZelContainer request :
       {Alias("../x"), Alias("x", "relative"), Alias("x", root_ / "home/config"), ZelContainer()}) {
    ZelContainer expected = request;
    EXPECT_EQ(InvokeAs("agent/pc-1", "HttpProtocolAddAlias", &request), 1u);
    EXPECT_FALSE(Text(request, "Error").empty());
    request.Remove("Error");
    EXPECT_EQ(request, expected);
  }
  EXPECT_TRUE(aliases_.List().empty());
}

TEST_F(CoreActionsTest, AskThePrivacyPolicyAboutAliasesOfConsoleUsers) {
  ZelContainer request = Alias("x");
  EXPECT_EQ(InvokeAs("bob", "HttpProtocolAddAlias", &request), 0u);
  EXPECT_EQ(InvokeAs("admin", "HttpProtocolAddAlias", &request), 0u);
  for (const char* login : {"eve", "mallory"}) {
    EXPECT_EQ(InvokeAs(login, "HttpProtocolAddAlias", &request), 1u) << login;
    EXPECT_THAT(Text(request, "Error"), HasSubstr("privacy policy"));
  }
  EXPECT_EQ(aliases_.List().size(), 2u);
}

TEST_F(CoreActionsTest, AskThePrivacyPolicyAboutTheUserThatAnAgentSpeaksFor) {
  ZelContainer request = Alias("x");
  request.SetString("DACurrentConsoleUser", "eve", kNoIndex);
  EXPECT_EQ(InvokeAs("agent/pc-1", "HttpProtocolAddAlias", &request), 1u);
  request.SetString("DACurrentConsoleUser", "bob", kNoIndex);
  EXPECT_EQ(InvokeAs("agent/pc-1", "HttpProtocolAddAlias", &request), 0u);
  // A console user's own login counts, whatever the container says.
  EXPECT_EQ(InvokeAs("eve", "HttpProtocolAddAlias", &request), 1u);
}

TEST_F(CoreActionsTest, ListAliases) {
  ZelContainer answer;
  answer.SetInt32("Unasked", 1, kNoIndex);
  EXPECT_EQ(Invoke("HttpProtocolListAliases", &answer), 0u);
  EXPECT_EQ(answer.CountKeys(), 0u);

  ZelContainer request = Alias("b");
  request.SetBool("AliasTemporary", true, kNoIndex);
  request.SetString("ServerName", "BackupRestore", kNoIndex);
  EXPECT_EQ(InvokeAs("agent/pc-1", "HttpProtocolAddAlias", &request), 0u);
  EXPECT_EQ(Invoke("HttpProtocolAddAlias", &(request = Alias("a"))), 0u);
  std::string problem;
  const auto upload = aliases_.BeginUpload("agent/pc-1", "b", &problem);
  EXPECT_EQ(Invoke("HttpProtocolListAliases", &answer), 0u);
  ASSERT_EQ(answer.CountValues("Values"), 2);
  EXPECT_EQ(Text(Values(answer, 0), "Owner"), "");
  EXPECT_EQ(Text(Values(answer, 0), "AliasName"), "a");

  const ZelContainer row = Values(answer, 1);
  EXPECT_EQ(row.CountKeys(), 8u);
  EXPECT_EQ(Text(row, "AliasName"), "b");
  EXPECT_EQ(Text(row, "AliasPath"), (root_ / "target").Utf8());
  EXPECT_EQ(Text(row, "Owner"), "agent/pc-1");
  EXPECT_EQ(Text(row, "ServerName"), "BackupRestore");
  EXPECT_TRUE(Flag(row, "AliasTemporary"));
  EXPECT_EQ(Number(row, "Uploads"), 1);
  EXPECT_GE(Number(row, "SilentMs"), 0);
  EXPECT_EQ(Number(row, "ExpiresInMs"), 3600000);
}

TEST_F(CoreActionsTest, TellHowFarLongWorkIs) {
  Progress running(Progress::Kind::kSend, "/running", 1000);
  running.Add(600);
  Progress(Progress::Kind::kExtract, "/failed", 0).Finish("it is broken");

  ZelContainer answer;
  EXPECT_EQ(Invoke("AgentGetProgress", &answer), 0u);
  const int count = answer.CountValues("Values");
  ASSERT_GE(count, 2);
  const ZelContainer first = Values(answer, static_cast<uint32_t>(count - 2));
  EXPECT_EQ(first.CountKeys(), 8u);
  EXPECT_EQ(Text(first, "Kind"), "send");
  EXPECT_EQ(Text(first, "Name"), "/running");
  EXPECT_EQ(Number(first, "DoneBytes"), 600);
  EXPECT_EQ(Number(first, "TotalBytes"), 1000);
  EXPECT_GE(Number(first, "ElapsedMs"), 0);
  EXPECT_TRUE(Flag(first, "Running"));
  EXPECT_EQ(Text(first, "Failure"), "");
  const ZelContainer second = Values(answer, static_cast<uint32_t>(count - 1));
  EXPECT_EQ(Text(second, "Kind"), "extract");
  EXPECT_FALSE(Flag(second, "Running"));
  EXPECT_EQ(Text(second, "Failure"), "it is broken");
  EXPECT_GT(Number(second, "Id"), Number(first, "Id"));
}

TEST_F(CoreActionsTest, DeclareTheTypesOfTheirParameters) {
  EXPECT_EQ(actions_.Signature("HttpProtocolAddAlias"),
            "HttpProtocolAddAlias (string AliasName, string AliasPath, boolean AliasTemporary)");
  EXPECT_EQ(actions_.Signature("HttpProtocolDeleteAlias"),
            "HttpProtocolDeleteAlias (string AliasName)");
  EXPECT_EQ(actions_.List().size(), 12u);
}

}  // namespace
