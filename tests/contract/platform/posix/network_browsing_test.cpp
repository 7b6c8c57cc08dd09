// The Windows network as NetServerEnum shows it.

#include <string>
#include <vector>

#include "tests/contract/module_test.h"
#include "windows_api.h"

namespace {

using namespace std::string_literals;

constexpr const char* kLists = "NetServerEnum(null, 100, given, ~0, given, given, ";
constexpr const char* kFrees = "~NetApiBuffer";
const std::string kListsDomains = std::string(kLists) + "2147483648, null, null)";
/// What the system answers when it does not list anything: access denied, not enough memory, no
/// browser, no such domain, a wrong parameter, more than it tells, and numbers without a meaning.
constexpr int64_t kStatuses[] = {5, 8, 6118, 1355, 87, 234, 1, 2, 0x7FFFFFFF, 0xFFFFFFFF};

/// What may be stored of a list that is not whole; nothing at all is what a status alone answers.
const std::vector<ZelString> kPartsOfLists[] = {{"ONE"}, {"ONE", "TWO"}, {}};

std::string ListsServers(const std::string& domain) {
  return std::string(kLists) + "~0, " + domain + ", null)";
}

std::string Converts(const std::string& shown) {
  return "MultiByteToWideChar(0, 0, \"" + shown + "\", -1, given, 64)";
}

/// Parameters with a domain that is no text; absent in the last one.
std::vector<ZelContainer> WithoutDomain() {
  std::vector<ZelContainer> variants(7, Texts({{"Other", "x"}}));
  variants[0].SetString("DomainName", "", kNoIndex);
  variants[1].SetInt32("DomainName", 7, kNoIndex);
  variants[2].SetBool("DomainName", true, kNoIndex);
  variants[3].SetString("DomainName", "A LIST", 0);
  variants[4].SetContainer("DomainName", Texts({{"DomainName", "INNER"}}), kNoIndex);
  variants[5].SetString("domainname", "ANOTHER KEY", kNoIndex);
  return variants;
}

/// What the system stands in for must itself be noticed.
TEST(FakeHost, ForgetsTheNamesThatWereFreedAndKnowsNoOthersToFree) {
  FakeHost host;
  host.AnswerList("NetServerEnum", {"AB", ""});
  uint8_t* buffer = nullptr;
  DWORD count = 0;
  DWORD total = 0;
  ASSERT_EQ(NetServerEnum(u"S", 1, &buffer, 2, &count, &total, 3, u"D", &total), 0u);
  ASSERT_EQ(count, 2u);
  const auto* records = reinterpret_cast<const SERVER_INFO_100*>(buffer);
  EXPECT_EQ(ZelString(records[0].sv100_name), "AB");
  EXPECT_EQ(ZelString(records[1].sv100_name), "");

  NetApiBufferFree(nullptr);
  NetApiBufferFree(buffer + 1);
  NetApiBufferFree(buffer);
  NetApiBufferFree(buffer);

  EXPECT_EQ(std::u16string(records[0].sv100_name, 3), u"???");
  EXPECT_THAT(host.Transcript(),
              ElementsAre("NetServerEnum(\"S\", 1, given, 2, given, given, 3, \"D\", given)",
                          "~Unknown buffer", "~Unknown buffer", kFrees, "~Unknown buffer"));
}

class BrowsingTest : public ModuleTest {
 protected:
  /// Expects an action that asks the system with `calls` to list what there is, and how it fails.
  void ExpectList(const std::string& action, const ZelContainer& params,
                  const std::vector<std::string>& calls) {
    host.ForgetTranscript();
    host.AnswerList("NetServerEnum", {"WORKGROUP", "ANOTHER"});
    EXPECT_EQ(Run(action, params),
              (Outcome{kSuccess, "{Values: [String \"WORKGROUP\", String \"ANOTHER\"]}"}));
    std::vector<std::string> all = calls;
    all.emplace_back(kFrees);
    EXPECT_EQ(host.Transcript(), all) << Describe(params);
  }
  void ExpectFailures(const std::string& action, const ZelContainer& params,
                      const std::string& call) {
    for (const int64_t status : kStatuses) {
      host.ForgetTranscript();
      host.Answer("NetServerEnum", status);
      EXPECT_EQ(Run(action, params), (Outcome{kFailure, "{}"})) << status;
      EXPECT_THAT(host.Transcript(), ElementsAre(call)) << status;
    }
  }
  /// Expects the names to come back in this order, whatever they are.
  void ExpectNames(const std::string& action, std::vector<ZelString> names,
                   const std::string& container) {
    host.AnswerList("NetServerEnum", std::move(names));
    EXPECT_EQ(Run(action, {}), (Outcome{kSuccess, container}));
    EXPECT_EQ(host.Transcript().back(), kFrees);
  }
  void ExpectOddNames(const std::string& action) {
    ExpectNames(action, {"b", "a", "B", "a", "A"},
                "{Values: [String \"b\", String \"a\", String \"B\", String \"a\", String \"A\"]}");
    ExpectNames(action, {"ONE"}, "{Values: [String \"ONE\"]}");
    ExpectNames(action, {""}, "{Values: [String \"\"]}");
    ExpectNames(action, {"M\xC3\x9CLLER", "\xE4\xB8\xAD\xE6\x96\x87", "\xF0\x9F\x98\x80"},
                "{Values: [String \"M\xC3\x9CLLER\", String \"\xE4\xB8\xAD\xE6\x96\x87\", "
                "String \"\xF0\x9F\x98\x80\"]}");
    ExpectNames(action, {}, "{}");
  }
};

using ListDomains = BrowsingTest;

TEST_F(ListDomains, AsksTheLocalComputerForAllDomainsAndFreesWhatItGot) {
  ExpectList("CoreUtilsListDomains", {}, {kListsDomains});
}

TEST_F(ListDomains, KeepsNoParameterAndNoOldAnswer) {
  ZelContainer params = Texts({{"Other", "x"}, {"DomainName", "WORKGROUP"}});
  for (const uint32_t index : {0, 1, 2}) params.SetString("Values", "old", index);
  ExpectList("CoreUtilsListDomains", params, {kListsDomains});
  ExpectFailures("CoreUtilsListDomains", params, kListsDomains);
}

TEST_F(ListDomains, GivesNamesAsTheSystemOrdersThem) {
  ExpectOddNames("CoreUtilsListDomains");
}

TEST_F(ListDomains, GivesManyNames) {
  std::vector<ZelString> names;
  std::string container = "{Values: [";
  for (int i = 0; i < 1000; ++i) {
    names.emplace_back("DOMAIN" + std::to_string(i));
    container += (i ? ", " : "") + ("String \"DOMAIN" + std::to_string(i)) + "\"";
  }
  ExpectNames("CoreUtilsListDomains", names, container + "]}");
}

TEST_F(ListDomains, FailsSilentlyWhenTheSystemDoes) {
  ExpectFailures("CoreUtilsListDomains", {}, kListsDomains);
}

TEST_F(ListDomains, GivesNothingOfAListThatIsNotWholeAndFreesIt) {
  for (const std::vector<ZelString>& names : kPartsOfLists) {
    host.ForgetTranscript();
    host.AnswerList("NetServerEnum", names, 234);
    EXPECT_EQ(Run("CoreUtilsListDomains", {}), (Outcome{kFailure, "{}"}));
    EXPECT_THAT(host.Transcript(), ElementsAre(kListsDomains, kFrees));
  }
}

TEST_F(ListDomains, BearsASystemThatStoresNothing) {
  host.Answer("NetServerEnum", 0);
  EXPECT_EQ(Run("CoreUtilsListDomains", {}), (Outcome{kSuccess, "{}"}));
  EXPECT_THAT(host.Transcript(), ElementsAre(kListsDomains));
}

TEST_F(ListDomains, AnswersNothingInsteadOfAFewNames) {
  host.AnswerList("NetServerEnum", {"WORKGROUP"});
  host.FailCall(1, FakeHost::Fault::kThrowOnce);
  EXPECT_EQ(Run("CoreUtilsListDomains", Texts({{"Other", "x"}})), (Outcome{kFailure, "{}"}));
}

class ListServers : public BrowsingTest {
 protected:
  /// What the system makes of the name: `wide` characters, the terminator included.
  void AnswerConversion(const std::u16string& wide) {
    const std::u16string terminated = wide + u'\0';
    std::string bytes(reinterpret_cast<const char*>(terminated.data()), terminated.size() * 2);
    host.AnswerBytes("MultiByteToWideChar", bytes, static_cast<int64_t>(terminated.size()));
  }
  /// Expects a name that does not become wide characters to be no domain's.
  void ExpectUnconverted(const std::string& name) {
    host.ForgetTranscript();
    host.Answer("MultiByteToWideChar", 0);
    const ZelContainer params = Texts({{"DomainName", name.c_str()}, {"Other", "x"}});
    EXPECT_EQ(Run("CoreUtilsListServers", params), (Outcome{kFailure, "{}"}));
    EXPECT_THAT(host.Transcript(), ElementsAre(Converts(name)));
  }
};

TEST_F(ListServers, AsksForTheDomainThatIsNamed) {
  AnswerConversion(u"WORKGROUP");
  ExpectList("CoreUtilsListServers", Texts({{"DomainName", "WORKGROUP"}, {"Other", "x"}}),
             {Converts("WORKGROUP"), ListsServers("\"WORKGROUP\"")});
}

TEST_F(ListServers, AsksForTheComputersOwnDomainWithoutAName) {
  for (const ZelContainer& params : WithoutDomain()) {
    ExpectList("CoreUtilsListServers", params, {ListsServers("null")});
  }
}

TEST_F(ListServers, HandsTheNameOverAsTheSystemConvertsIt) {
  AnswerConversion(u"M\u00DCLLER");
  ExpectList("CoreUtilsListServers", Texts({{"DomainName", "M\xC3\x9CLLER"}}),
             {Converts("M\\xc3\\x9cLLER"), ListsServers("\"M\xC3\x9CLLER\"")});

  AnswerConversion(u"OTHER");
  ExpectList("CoreUtilsListServers", Texts({{"DomainName", " workgroup "}}),
             {Converts(" workgroup "), ListsServers("\"OTHER\"")});
}

TEST_F(ListServers, HasRoomForANameOf63Characters) {
  const std::string name(63, 'A');
  AnswerConversion(std::u16string(63, u'A'));
  ExpectList("CoreUtilsListServers", Texts({{"DomainName", name.c_str()}}),
             {Converts(name), ListsServers("\"" + name + "\"")});
}

TEST_F(ListServers, FailsForANameThatIsTooLongForADomain) {
  for (const size_t length : {64U, 65U, 1000U}) ExpectUnconverted(std::string(length, 'A'));
}

TEST_F(ListServers, FailsForANameThatCannotBeConverted) {
  ExpectUnconverted("A");
}

TEST_F(ListServers, EndsANameThatTheSystemDoesNotEnd) {
  host.AnswerBytes("MultiByteToWideChar", "A\0B\0"s, 2);
  ExpectList("CoreUtilsListServers", Texts({{"DomainName", "AB"}}),
             {Converts("AB"), ListsServers("\"AB\"")});
}

TEST_F(ListServers, TakesANameUpToATerminatorInIt) {
  ZelContainer params;
  params.SetString("DomainName", std::string("A\0B", 3), kNoIndex);
  AnswerConversion(u"A");
  ExpectList("CoreUtilsListServers", params, {Converts("A"), ListsServers("\"A\"")});
}

TEST_F(ListServers, KeepsNoParameterAndNoOldAnswer) {
  ZelContainer params = Texts({{"Other", "x"}});
  for (const uint32_t index : {0, 1, 2}) params.SetString("Values", "old", index);
  ExpectList("CoreUtilsListServers", params, {ListsServers("null")});
  ExpectFailures("CoreUtilsListServers", params, ListsServers("null"));
}

TEST_F(ListServers, GivesNamesAsTheSystemOrdersThem) {
  ExpectOddNames("CoreUtilsListServers");
}

TEST_F(ListServers, FailsSilentlyWhenTheSystemDoes) {
  ExpectFailures("CoreUtilsListServers", {}, ListsServers("null"));
  for (const int64_t status : kStatuses) {
    host.ForgetTranscript();
    AnswerConversion(u"A");
    host.Answer("NetServerEnum", status);
    EXPECT_EQ(Run("CoreUtilsListServers", Texts({{"DomainName", "A"}})), (Outcome{kFailure, "{}"}));
    EXPECT_THAT(host.Transcript(), ElementsAre(Converts("A"), ListsServers("\"A\"")));
  }
}

TEST_F(ListServers, GivesNothingOfAListThatIsNotWholeAndFreesIt) {
  for (const std::vector<ZelString>& names : kPartsOfLists) {
    host.ForgetTranscript();
    host.AnswerList("NetServerEnum", names, 234);
    EXPECT_EQ(Run("CoreUtilsListServers", {}), (Outcome{kFailure, "{}"}));
    EXPECT_THAT(host.Transcript(), ElementsAre(ListsServers("null"), kFrees));
  }
}

TEST_F(ListServers, HasClearedTheContainerBeforeItAsks) {
  AnswerConversion(u"A");
  host.AnswerList("NetServerEnum", {"SERVER"});
  // When the buffer is freed, the names are in the container.
  EXPECT_THAT(KeysAtEachCall("CoreUtilsListServers", Texts({{"DomainName", "A"}, {"Other", "x"}})),
              ElementsAre(0, 0, 1));
}

TEST_F(ListDomains, HasClearedTheContainerBeforeItAsks) {
  host.AnswerList("NetServerEnum", {"WORKGROUP"});
  EXPECT_THAT(KeysAtEachCall("CoreUtilsListDomains", Texts({{"Values", "A"}, {"Other", "x"}})),
              ElementsAre(0, 1));
}

}  // namespace
