#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "tests/contract/module_test.h"

namespace {

// ---- ping ----

class PingICMP : public ModuleTest {
 protected:
  void ExpectPing(const ZelContainer& params, const std::string& address, int answer) {
    host.ForgetTranscript();
    host.Answer("PingICMP", answer);
    EXPECT_EQ(Run("CoreUtilsPingICMP", params),
              (Outcome{kSuccess, answer ? "{Result: Bool true}" : "{Result: Bool false}"}));
    EXPECT_THAT(host.Transcript(), ElementsAre("PingICMP(\"" + address + "\")"))
        << Describe(params);
  }
};

TEST_F(PingICMP, TellsWhetherTheHostAnswered) {
  for (const int answer : {0, 1}) {
    ExpectPing(Texts({{"PingAddr", "10.0.0.5"}, {"Other", "x"}}), "10.0.0.5", answer);
  }
}

TEST_F(PingICMP, HandsTheAddressOverAsItStands) {
  for (const char* address :
       {"server", "server.example.org.", "fe80::1%eth0", " 10.0.0.5 ", "\\\\server\\share", "%S",
        "b\xC3\xBC"
        "cher.example",
        "10.0.0.5; reboot"}) {
    ExpectPing(Texts({{"PingAddr", address}}), address, 1);
  }
  const std::string longName(100000, 'a');
  ExpectPing(Texts({{"PingAddr", longName.c_str()}}), longName, 0);
}

TEST_F(PingICMP, PingsAnEmptyNameWithoutAnAddress) {
  ExpectPing(Texts({{"PingAddr", ""}}), "", 0);
  for (const ZelContainer& params :
       WithoutText(Texts({{"PingAddr", "x"}, {"strTargetAddr", "10.0.0.5"}}), "PingAddr")) {
    ExpectPing(params, "", 0);
  }
}

TEST_F(PingICMP, ReplacesAResultThatWasSentIn) {
  ExpectPing(Texts({{"Result", "mine"}, {"PingAddr", "h"}}), "h", 1);
}

TEST_F(PingICMP, HasClearedTheContainerBeforeItAsks) {
  host.Answer("PingICMP", 1);
  EXPECT_THAT(KeysAtEachCall("CoreUtilsPingICMP", Texts({{"PingAddr", "h"}, {"Other", "x"}})),
              ElementsAre(0));
}

// ---- file servers ----

constexpr uint32_t kServerAddress = 0x0A000005;
constexpr const char* kUser = "DOMAIN\\ann";
constexpr const char* kPassword = "Tr0ub4dor&3";

constexpr const char* kMakesClient = "CsSmbClient(0)";
constexpr const char* kConnects = "TcpConnect(167772165, 139)";
constexpr const char* kCallsServer = "NbtSessionRequest(\"*SMBSERVER\")";
constexpr const char* kNegotiates = "SmbSessionNegotiate()";
constexpr const char* kLogsIn = "SmbSessionSetup(\"DOMAIN\\ann\", \"Tr0ub4dor&3\")";
constexpr const char* kClosesTree = "SmbTreeDisconnect(filled)";
constexpr const char* kLogsOff = "SmbSessionLogOff()";
constexpr const char* kEndsNetBios = "NbtDisconnect()";
constexpr const char* kEndsTcp = "TcpDisconnect()";
constexpr const char* kDropsClient = "~CsSmbClient";

const std::vector<const char*> kShareSteps = {
    "TcpConnect", "NbtSessionRequest", "SmbSessionNegotiate", "SmbSessionSetup", "SmbTreeConnect"};

std::string TakesLiteral(const std::string& host) {
  return "IpAddress::SetTo(\"" + host + "\")";
}

std::string LooksUp(const std::string& host) {
  return "IpAddress::SetToHostName(\"" + host + "\")";
}

std::string OpensTree(const std::string& share) {
  return "SmbTreeConnect(\"" + share + "\", zeroed)";
}

std::string Prints(const std::string& text) {
  return "Print \"" + text + "\"";
}

std::string Found(const std::string& host, const std::string& share, int result) {
  return "{TargetHost: String \"" + host + "\", TargetShare: String \"" + share +
         "\", ConnectionResult: Int32 " + std::to_string(result) + "}";
}

ZelContainer Share(const std::string& path, const char* user = kUser,
                   const char* password = kPassword) {
  return Texts({{"SmbPathShare", path.c_str()}, {"SmbUser", user}, {"SmbPassword", password}});
}

class CheckSMBShare : public ModuleTest {
 protected:
  /// The host's name is an address, and the first `count` steps succeed; the next one does not.
  void AnswerSteps(size_t count) {
    host.Answer("IpAddress::SetTo", kServerAddress);
    AnswerLadder(count);
  }
  void AnswerLadder(size_t count) {
    for (size_t i = 0; i < kShareSteps.size() && i <= count; ++i) {
      host.Answer(kShareSteps[i], i < count ? 1 : 0);
    }
  }
  Outcome Check(const ZelContainer& params) {
    host.ForgetTranscript();
    return Run("CoreUtilsCheckSMBShare", params);
  }
  /// Expects the path to name this host and this share, and both to be used so.
  void ExpectParts(const std::string& path, const std::string& target, const std::string& share) {
    AnswerSteps(5);
    EXPECT_EQ(Check(Share(path)), (Outcome{kSuccess, Found(target, share, 0)})) << path;
    EXPECT_EQ(host.Transcript().front(), TakesLiteral(target));
    EXPECT_EQ(host.Transcript()[6], OpensTree(share));
  }
  void ExpectNoPath(const ZelContainer& params) {
    EXPECT_EQ(Check(params), (Outcome{kBadParameter, "{}"})) << Describe(params);
    EXPECT_THAT(host.Transcript(), IsEmpty()) << Describe(params);
  }
  /// Expects these lines after those of a client that has been made.
  void ExpectClimb(std::initializer_list<std::string> lines) {
    std::vector<std::string> all = {TakesLiteral("fileserver"), kMakesClient};
    all.insert(all.end(), lines);
    EXPECT_EQ(host.Transcript(), all);
  }
  static Outcome Failed(int result) {
    return {kSmbStepFailed, Found("fileserver", "public", result)};
  }
};

TEST_F(CheckSMBShare, OpensTheShareAndClosesItAgain) {
  AnswerSteps(5);

  EXPECT_EQ(Check(Share("\\\\fileserver\\public")),
            (Outcome{kSuccess, Found("fileserver", "public", 0)}));

  ExpectClimb({kConnects, kCallsServer, kNegotiates, kLogsIn, OpensTree("public"), kClosesTree,
               kLogsOff, kEndsNetBios, kEndsTcp, kDropsClient});
}

TEST_F(CheckSMBShare, TellsTheHostAndTheShareOfAPath) {
  ExpectParts("\\\\fileserver\\public", "fileserver", "public");
  ExpectParts("fileserver\\public", "fileserver", "public");
  ExpectParts("fileserver\\public\\sub", "fileserver", "public\\sub");
  ExpectParts("\\\\fileserver\\public\\sub\\", "fileserver", "public\\sub\\");
  ExpectParts("h\\s", "h", "s");
  ExpectParts("10.0.0.5\\c$", "10.0.0.5", "c$");
  ExpectParts("host name\\a share", "host name", "a share");
  ExpectParts("host\\\\share", "host", "\\share");
  ExpectParts("host\\\\", "host", "\\");
  ExpectParts("//host/public\\share", "//host/public", "share");
  ExpectParts("host\\share/sub", "host", "share/sub");
  ExpectParts(
      "M\xC3\x9CLLER\\B\xC3\xBC"
      "cher",
      "M\xC3\x9CLLER",
      "B\xC3\xBC"
      "cher");
  ExpectParts(" \\ ", " ", " ");
}

TEST_F(CheckSMBShare, TakesTheCaseOfLettersAsItIs) {
  ExpectParts("FileServer\\PuBlic", "FileServer", "PuBlic");
}

// Texts stand in the transcript with their control characters escaped.
TEST_F(CheckSMBShare, TakesLineEndsLikeOtherCharacters) {
  const auto expect = [this](const char* path, const char* target, const char* share) {
    AnswerSteps(5);
    EXPECT_EQ(Check(Share(path)), (Outcome{kSuccess, Found(target, share, 0)}));
  };
  expect("host\\share\nmore\r\n", "host", R"(share\x0amore\x0d\x0a)");
  expect("ho\nst\\\nshare", R"(ho\x0ast)", R"(\x0ashare)");
  expect("line\n\\\\host\\share", R"(line\x0a)", R"(\host\share)");
}

TEST_F(CheckSMBShare, RefusesPathsOfAnotherForm) {
  for (const char* path :
       {"", "fileserver", "//fileserver/public", "fileserver/public", "\\", "\\\\", "\\\\\\",
        "\\share", "\\host\\share", "\\\\\\host\\share", "\\\\host", "\\\\host\\", "host\\",
        "\\\\\\\\host\\share", "\\\n\\\\host\\share"}) {
    ExpectNoPath(Share(path));
  }
}

TEST_F(CheckSMBShare, RefusesToGoWithoutAPath) {
  ZelContainer params = Share("host\\share");
  params.SetString("strSharePath", "host\\share", kNoIndex);
  params.SetString("TargetHost", "mine", kNoIndex);
  params.SetString("ConnectionResult", "mine", kNoIndex);
  for (const ZelContainer& variant : WithoutText(params, "SmbPathShare")) ExpectNoPath(variant);
}

TEST_F(CheckSMBShare, LogsInWithEmptyTextsWithoutUserAndPassword) {
  ZelContainer params = Share("h\\s");
  // The names of the signature, which nobody reads.
  params.SetString("strUser", "mine", kNoIndex);
  params.SetString("strPassword", "mine", kNoIndex);
  for (const ZelContainer& variant : WithoutText(params, "SmbUser")) {
    AnswerSteps(5);
    EXPECT_EQ(Check(variant).code, kSuccess);
    EXPECT_EQ(host.Transcript()[5], "SmbSessionSetup(\"\", \"Tr0ub4dor&3\")");
  }
  for (const ZelContainer& variant : WithoutText(params, "SmbPassword")) {
    AnswerSteps(5);
    EXPECT_EQ(Check(variant).code, kSuccess);
    EXPECT_EQ(host.Transcript()[5], "SmbSessionSetup(\"DOMAIN\\ann\", \"\")");
  }
  AnswerSteps(5);
  EXPECT_EQ(Check(Share("h\\s", "", "")).code, kSuccess);
  EXPECT_EQ(host.Transcript()[5], "SmbSessionSetup(\"\", \"\")");
}

TEST_F(CheckSMBShare, LooksNoNameUpForALiteralAddress) {
  AnswerSteps(0);
  EXPECT_EQ(Check(Share("10.0.0.5\\s")).container, Found("10.0.0.5", "s", 1));
  EXPECT_THAT(host.Transcript(),
              ElementsAre(TakesLiteral("10.0.0.5"), kMakesClient, kConnects,
                          Prints("Failed to connect to 10.0.0.5 at TCP level"), kDropsClient));
}

TEST_F(CheckSMBShare, LooksUpWhatIsNoAddress) {
  host.Answer("IpAddress::SetTo", -1);
  host.Answer("IpAddress::SetToHostName", 0xFFFFFFFE);
  AnswerLadder(5);

  EXPECT_EQ(Check(Share("fileserver\\public")),
            (Outcome{kSuccess, Found("fileserver", "public", 0)}));

  EXPECT_EQ(host.Transcript()[0], TakesLiteral("fileserver"));
  EXPECT_EQ(host.Transcript()[1], LooksUp("fileserver"));
  EXPECT_EQ(host.Transcript()[2], kMakesClient);
  EXPECT_EQ(host.Transcript()[3], "TcpConnect(4294967294, 139)");
}

TEST_F(CheckSMBShare, FailsForAHostThatNobodyKnows) {
  host.Answer("IpAddress::SetTo", -1);
  host.Answer("IpAddress::SetToHostName", -1);

  EXPECT_EQ(Check(Share("fileserver\\public")),
            (Outcome{kFailure, Found("fileserver", "public", 4)}));

  EXPECT_THAT(host.Transcript(), ElementsAre(TakesLiteral("fileserver"), LooksUp("fileserver"),
                                             Prints("Failed to handle host fileserver")));
}

TEST_F(CheckSMBShare, HasNothingToCloseWithoutAConnection) {
  AnswerSteps(0);
  EXPECT_EQ(Check(Share("fileserver\\public")), Failed(1));
  ExpectClimb({kConnects, Prints("Failed to connect to fileserver at TCP level"), kDropsClient});
}

TEST_F(CheckSMBShare, DisconnectsWithoutANetBiosSession) {
  AnswerSteps(1);
  EXPECT_EQ(Check(Share("fileserver\\public")), Failed(1));
  ExpectClimb({kConnects, kCallsServer, Prints("Failed to connect to fileserver at NetBIOS level"),
               kEndsTcp, kDropsClient});
}

TEST_F(CheckSMBShare, EndsBothSessionsWithoutADialect) {
  AnswerSteps(2);
  EXPECT_EQ(Check(Share("fileserver\\public")), Failed(1));
  ExpectClimb({kConnects, kCallsServer, kNegotiates,
               Prints("Failed to negotiate SMB session with fileserver"), kEndsNetBios, kEndsTcp,
               kDropsClient});
}

TEST_F(CheckSMBShare, EndsBothSessionsAfterARefusedLogIn) {
  AnswerSteps(3);
  EXPECT_EQ(Check(Share("fileserver\\public")), Failed(2));
  ExpectClimb({kConnects, kCallsServer, kNegotiates, kLogsIn,
               Prints("Failed to authenticate SMB session with fileserver"), kEndsNetBios, kEndsTcp,
               kDropsClient});
}

TEST_F(CheckSMBShare, LogsOffWhenTheShareIsRefused) {
  AnswerSteps(4);
  EXPECT_EQ(Check(Share("fileserver\\public")), Failed(3));
  ExpectClimb({kConnects, kCallsServer, kNegotiates, kLogsIn, OpensTree("public"),
               Prints("Failed to connect to share public"), kLogsOff, kEndsNetBios, kEndsTcp,
               kDropsClient});
}

TEST_F(CheckSMBShare, NamesTheWholeShareThatWasRefused) {
  AnswerSteps(4);
  EXPECT_EQ(Check(Share("h\\public\\sub")).container, Found("h", "public\\sub", 3));
  EXPECT_EQ(host.Transcript()[7], Prints("Failed to connect to share public\\sub"));
}

TEST_F(CheckSMBShare, LogsNamesAsTheyStand) {
  AnswerSteps(0);
  Check(Share("%d %S\\share"));
  EXPECT_EQ(host.Transcript()[3], Prints("Failed to connect to %d %S at TCP level"));
  AnswerSteps(4);
  Check(Share("host\\%s%n"));
  EXPECT_EQ(host.Transcript()[7], Prints("Failed to connect to share %s%n"));
}

TEST_F(CheckSMBShare, TakesEveryAnswerOtherThanZeroForSuccess) {
  for (const int64_t answer : {-1, 2, 4711}) {
    host.Answer("IpAddress::SetTo", kServerAddress);
    for (const char* step : kShareSteps) host.Answer(step, answer);
    EXPECT_EQ(Check(Share("h\\s")), (Outcome{kSuccess, Found("h", "s", 0)})) << answer;
  }
}

TEST_F(CheckSMBShare, KeepsNoParameter) {
  ZelContainer params = Share("h\\s");
  params.SetString("Other", "x", kNoIndex);
  params.SetString("ConnectionResult", "mine", 0);
  AnswerSteps(5);
  EXPECT_EQ(Check(params).container, Found("h", "s", 0));
}

TEST_F(CheckSMBShare, TellsTheTargetBeforeItLooksForTheHostAndTheResultInTheEnd) {
  AnswerSteps(5);
  // The client goes last.
  EXPECT_THAT(KeysAtEachCall("CoreUtilsCheckSMBShare", Share("h\\s")),
              ElementsAre(2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 3));
}

TEST_F(CheckSMBShare, TellsAFailedStepAfterWhatItHasTakenDown) {
  for (size_t succeeding = 0; succeeding < 5; ++succeeding) {
    AnswerSteps(succeeding);
    auto keys = KeysAtEachCall("CoreUtilsCheckSMBShare", Share("h\\s"));
    ASSERT_FALSE(keys.empty());
    EXPECT_EQ(keys.back(), 3) << succeeding;
    keys.pop_back();
    EXPECT_THAT(keys, testing::Each(2)) << succeeding;
  }
}

TEST_F(CheckSMBShare, SaysThatNobodyKnowsTheHostBeforeItTellsTheResult) {
  host.Answer("IpAddress::SetTo", -1);
  host.Answer("IpAddress::SetToHostName", -1);
  EXPECT_THAT(KeysAtEachCall("CoreUtilsCheckSMBShare", Share("h\\s")), ElementsAre(2, 2, 2));
}

/// Whether a line other than the log-in's holds the password.
bool ShowsPassword(const std::vector<std::string>& lines) {
  return std::any_of(lines.begin(), lines.end(), [](const std::string& line) {
    return !line.starts_with("SmbSessionSetup(") && line.find(kPassword) != std::string::npos;
  });
}

TEST_F(CheckSMBShare, LogsNoPassword) {
  for (size_t succeeding = 0; succeeding <= kShareSteps.size(); ++succeeding) {
    AnswerSteps(succeeding);
    EXPECT_EQ(Check(Share("h\\s")).container.find(kPassword), std::string::npos);
    EXPECT_FALSE(ShowsPassword(host.Transcript())) << succeeding;
  }
}

/// What is logged when host call `call` of a check that would succeed throws.
std::vector<std::string> CheckWithFault(size_t call) {
  FakeHost host;
  RegisterModule(host);
  host.Answer("IpAddress::SetTo", kServerAddress);
  for (const char* step : kShareSteps) host.Answer(step, 1);
  host.FailCall(call, FakeHost::Fault::kThrowOnce);
  EXPECT_EQ(RunAction(host, "CoreUtilsCheckSMBShare", Share("h\\s")), (Outcome{kFailure, "{}"}));
  return host.Transcript();
}

TEST(CheckSMBShareFaults, DropTheClientAndLogNoPassword) {
  for (size_t call = 1; call <= 11; ++call) {
    const std::vector<std::string> lines = CheckWithFault(call);
    EXPECT_FALSE(ShowsPassword(lines)) << call;
    EXPECT_EQ(lines.back(), "Error \"CoreUtilsCheckSMBShare failed: host call " +
                                std::to_string(call) + " failed\"");
    // Before the client was made there is none to drop.
    const bool isMade = call > 2;
    EXPECT_EQ(std::count(lines.begin(), lines.end(), kDropsClient), isMade ? 1 : 0) << call;
  }
}

// ---- HTTP ----

constexpr const char* kCheckedUrl = "https://example.org/a?b=c";

class CheckHTTPConnection : public ModuleTest {
 protected:
  static std::string Fetches(const std::string& url) {
    return "CurlAdvancedGet(\"" + url +
           "\", \"\", \"\", \"\", \"\", \"\", 0, 30, 0, true, null, null)";
  }
  void ExpectResult(const ZelContainer& params, const std::string& url, int answer, int result) {
    host.ForgetTranscript();
    host.Answer("CurlAdvancedGet", answer);
    ZelContainer expected = params;
    expected.SetInt32("HTTPCheckUrlResult", result, kNoIndex);
    EXPECT_EQ(Run("CoreUtilsCheckHTTPConnection", params), (Outcome{kSuccess, Describe(expected)}));
    EXPECT_THAT(host.Transcript(), ElementsAre(Fetches(url))) << Describe(params);
  }
};

TEST_F(CheckHTTPConnection, TellsThatTheUrlWasFetchedBesideTheUrl) {
  host.Answer("CurlAdvancedGet", 1);
  EXPECT_EQ(Run("CoreUtilsCheckHTTPConnection", Texts({{"HTTPCheckURL", kCheckedUrl}})),
            (Outcome{kSuccess,
                     "{HTTPCheckURL: String \"https://example.org/a?b=c\", "
                     "HTTPCheckUrlResult: Int32 1}"}));
  EXPECT_THAT(host.Transcript(), ElementsAre(Fetches(kCheckedUrl)));
}

TEST_F(CheckHTTPConnection, TellsThatItWasNot) {
  ExpectResult(Texts({{"HTTPCheckURL", kCheckedUrl}}), kCheckedUrl, 0, 0);
}

TEST_F(CheckHTTPConnection, TakesEveryAnswerOtherThanZeroForSuccess) {
  for (const int answer : {1, 2, -1, 200}) {
    ExpectResult(Texts({{"HTTPCheckURL", kCheckedUrl}}), kCheckedUrl, answer, 1);
  }
}

TEST_F(CheckHTTPConnection, HandsTheUrlOverAsItStands) {
  for (const char* url : {"", "example.org", "ftp://x", " http://x ", "file:///etc/passwd", "%S",
                          "http://b\xC3\xBC"
                          "cher.example/"}) {
    ExpectResult(Texts({{"HTTPCheckURL", url}}), url, 0, 0);
  }
}

TEST_F(CheckHTTPConnection, FetchesAnEmptyUrlWithoutOne) {
  const ZelContainer params = Texts(
      {{"HTTPCheckURL", kCheckedUrl}, {"strUrl", kCheckedUrl}, {"HTTPCheckUrl", kCheckedUrl}});
  for (const ZelContainer& variant : WithoutText(params, "HTTPCheckURL")) {
    ExpectResult(variant, "", 0, 0);
  }
}

TEST_F(CheckHTTPConnection, KeepsAllThatWasSentIn) {
  ZelContainer params = Texts({{"Other", "x"}, {"HTTPCheckURL", kCheckedUrl}, {"Result", "y"}});
  params.SetString("HTTPCheckUrlResult", "mine", 0);
  params.SetString("HTTPCheckUrlResult", "mine", 1);
  ExpectResult(params, kCheckedUrl, 1, 1);
}

TEST_F(CheckHTTPConnection, LogsNoUrlWhenTheHostThrows) {
  host.Answer("CurlAdvancedGet", 1);
  host.FailCall(1, FakeHost::Fault::kThrowOnce);
  EXPECT_EQ(Run("CoreUtilsCheckHTTPConnection", Texts({{"HTTPCheckURL", kCheckedUrl}})),
            (Outcome{kFailure, "{}"}));
  EXPECT_EQ(host.Transcript().back(),
            "Error \"CoreUtilsCheckHTTPConnection failed: host call 1 failed\"");
}

}  // namespace
