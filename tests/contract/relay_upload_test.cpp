#include <string>

#include "actions/relay/agent_transfer.h"
#include "tests/contract/transfer_test.h"

namespace {

using ::testing::Contains;

TEST(AliasName, TakesTheSecondsAsSigned32Bits) {
  EXPECT_EQ(AliasNameAt(0), "backup0");
  EXPECT_EQ(AliasNameAt(1326000000), "backup1326000000");
  EXPECT_EQ(AliasNameAt(2147483647), "backup2147483647");
  EXPECT_EQ(AliasNameAt(2147483648), "backup-2147483648");
  EXPECT_EQ(AliasNameAt(4294967295), "backup-1");
  EXPECT_EQ(AliasNameAt(4294967296), "backup0");
}

constexpr const char* kRelayUrl = "http://agent7:pw@relay.example:8080";
constexpr const char* kGuid = "\"guid-9\"";
constexpr const char* kSentFile = "C:\\data\\a.zip";
constexpr const char* kKeptFile = "D:\\backups\\pc 7\\a.one.zip";
constexpr const char* kAlias =
    "{AliasName: String \"backupN\", AliasPath: String \"D:/backups/pc 7/\", AliasTemporary: Bool "
    "false}";
constexpr const char* kResource = "/backupN/a.one.zip";

ZelContainer RelayParameters(const char* destination = kKeptFile, bool isZipped = false) {
  ZelContainer params = Texts({{"SourcePath", kSentFile}, {"DestinationPath", destination}});
  params.SetBool("IsZippedFile", isZipped, kNoIndex);
  return params;
}

/// The answer: the parameters, and the code besides.
Outcome FinishedCopy(ZelContainer params, ResultCode code) {
  params.SetInt32("ErrorCode", static_cast<int32_t>(code), kNoIndex);
  return {code, Describe(params)};
}

std::string Alias(const std::string& action, const std::string& container = kAlias) {
  return InvokedAt(kGuid, kRelayUrl, action, container);
}

std::string SendingToRelay(const std::string& resource = kResource) {
  return "HttpClient::SendAndRecv(\"guid-9\", \"relay.example\", {4, \"" + resource +
         "\", \"C:\\data\\a.zip\", \"\"}, {0}, 8080, 1, null)";
}

std::string ExtractionOnRelay(const std::string& directory, const std::string& name,
                              const std::string& nameWithoutExtension) {
  return InvokedAt(kGuid, kRelayUrl, "CoreUtilsExtractFile",
                   "{FilePath: String \"" + directory + name + "\", DestinationPath: String \"" +
                       directory + nameWithoutExtension + "\"}");
}

Lines RelayStart() {
  return Join({{InvokedHere("RelayGetValues")}, SenderCalls(), {Alias("HttpProtocolAddAlias")}});
}

Lines RelayProgress() {
  return {"Print \"Sender is '10.0.0.7:7460' and Receiver is 'relay.example:8080'\"",
          "Print \"copying file C:\\data\\a.zip to relay relay.example, /backupN/a.one.zip\""};
}

Lines RelayUpload() {
  return Join({ClientCalls(), RelayProgress(), {SendingToRelay()}});
}

Lines RelayEnd() {
  return {"~HttpClient", Alias("HttpProtocolDeleteAlias")};
}

class CopyFileToRelay : public TransferTest {
 protected:
  void AnswerRelay(const char* name = "relay.example", int32_t port = 8080) {
    host.AnswerInvocation(0, [=](ZelContainer& work) {
      ZelContainer values = Texts({{"ParentName", name}, {"ParentGuid", "guid-9"}});
      values.SetInt32("ParentPort", port, kNoIndex);
      work.SetContainer("Values", values, kNoIndex);
    });
  }
  /// The relay, this agent, and the alias.
  void AnswerStart(uint32_t aliasCode = 0) {
    AnswerRelay();
    AnswerSender(host);
    host.AnswerInvocation(aliasCode);
  }
  void AnswerUpload(int error = 0, uint32_t deletionCode = 0) {
    AnswerClient(host);
    host.Answer("HttpClient::SendAndRecv", error);
    host.AnswerInvocation(deletionCode);
  }
  Outcome Copy(const ZelContainer& params) { return Run("CoreUtilsCopyFileToRelay", params); }
};

TEST_F(CopyFileToRelay, SendsTheFileIntoAnAliasOfTheRelay) {
  AnswerStart();
  AnswerUpload();

  EXPECT_EQ(Copy(RelayParameters()), FinishedCopy(RelayParameters(), kSuccess));

  EXPECT_EQ(Calls(), Join({RelayStart(), RelayUpload(), RelayEnd()}));
}

TEST_F(CopyFileToRelay, UnpacksOnTheRelayWhenTheAliasIsGone) {
  AnswerStart();
  AnswerUpload();
  host.AnswerInvocation(0);

  const ZelContainer params = RelayParameters(kKeptFile, true);
  EXPECT_EQ(Copy(params), FinishedCopy(params, kSuccess));

  EXPECT_EQ(Calls(), Join({RelayStart(),
                           RelayUpload(),
                           RelayEnd(),
                           {ExtractionOnRelay("D:/backups/pc 7/", "a.one.zip", "a.one")}}));
}

TEST_F(CopyFileToRelay, HoldsNoOtherTransferUp) {
  const ZelContainer other = RelayParameters("E:\\other\\b.zip", true);
  AnswerStart();
  AnswerClient(host);
  host.AnswerWork("HttpClient::SendAndRecv", 0, [this, other] {
    host.ForgetTranscript();
    ExpectNotToWait([this, other] {
      AnswerStart();
      AnswerUpload();
      host.AnswerInvocation(0);
      EXPECT_EQ(Copy(other), FinishedCopy(other, kSuccess));
    });
    EXPECT_THAT(Calls(), Contains(SendingToRelay("/backupN/b.zip")));
    EXPECT_THAT(Calls(), Contains(ExtractionOnRelay("E:/other/", "b.zip", "b")));
    host.ForgetTranscript();
    host.AnswerInvocation(0);
  });

  EXPECT_EQ(Copy(RelayParameters()), FinishedCopy(RelayParameters(), kSuccess));

  EXPECT_EQ(Calls(), RelayEnd());
}

TEST_F(CopyFileToRelay, SendsNothingWithoutAnAlias) {
  for (const uint32_t code : {1U, 12U, kInvokeUnreachable}) {
    host.ForgetTranscript();
    AnswerStart(code);

    const ZelContainer params = RelayParameters(kKeptFile, true);
    EXPECT_EQ(Copy(params), FinishedCopy(params, kFailure));

    EXPECT_EQ(Calls(), Join({RelayStart(), {"Error \"Failed to add alias backupN\""}}));
  }
}

TEST_F(CopyFileToRelay, HandsWhatAddingTheAliasAnsweredOnToDeletingIt) {
  AnswerRelay();
  AnswerSender(host);
  host.AnswerInvocation(0, [](ZelContainer& alias) {
    alias.SetString("AliasPath", "E:/", kNoIndex);
    alias.SetString("Ticket", "t", kNoIndex);
  });
  AnswerUpload();

  EXPECT_EQ(Copy(RelayParameters()), FinishedCopy(RelayParameters(), kSuccess));

  EXPECT_EQ(Calls().back(), Alias("HttpProtocolDeleteAlias",
                                  "{AliasName: String \"backupN\", AliasPath: String \"E:/\", "
                                  "AliasTemporary: Bool false, Ticket: String \"t\"}"));
}

TEST_F(CopyFileToRelay, GoesByItsOwnNameAndDirectoryWhateverAddingTheAliasAnswered) {
  AnswerRelay();
  AnswerSender(host);
  host.AnswerInvocation(0, [](ZelContainer& alias) {
    alias.SetString("AliasName", "other", kNoIndex);
    alias.SetString("AliasPath", "E:/", kNoIndex);
    alias.SetBool("AliasTemporary", true, kNoIndex);
  });
  AnswerUpload(7, 1);
  host.AnswerInvocation(1);

  const ZelContainer params = RelayParameters(kKeptFile, true);
  EXPECT_EQ(Copy(params), FinishedCopy(params, kFailure));

  EXPECT_EQ(Calls(), Join({RelayStart(),
                           RelayUpload(),
                           {"Warning \"Error 7: Failed to copy file C:\\data\\a.zip to relay "
                            "relay.example, /backupN/a.one.zip\"",
                            "~HttpClient",
                            Alias("HttpProtocolDeleteAlias",
                                  "{AliasName: String \"other\", AliasPath: String \"E:/\", "
                                  "AliasTemporary: Bool true}"),
                            "Error \"Failed to delete alias backupN\"",
                            ExtractionOnRelay("D:/backups/pc 7/", "a.one.zip", "a.one"),
                            "Error \"Failed to extract 'D:/backups/pc 7/a.one.zip'.\""}}));
}

TEST_F(CopyFileToRelay, SendsWhileTheAliasIsThere) {
  AnswerStart();
  AnswerClient(host);
  Lines callsSoFar;
  host.AnswerWork("HttpClient::SendAndRecv", 0, [&] { callsSoFar = Calls(); });
  host.AnswerInvocation(0);

  EXPECT_EQ(Copy(RelayParameters()), FinishedCopy(RelayParameters(), kSuccess));

  EXPECT_EQ(callsSoFar, Join({RelayStart(), RelayUpload()}));
}

TEST_F(CopyFileToRelay, SucceedsWithAWarningWhenTheUploadFails) {
  for (const int error : {403, 7, -1}) {
    host.ForgetTranscript();
    AnswerStart();
    AnswerUpload(error);

    EXPECT_EQ(Copy(RelayParameters()), FinishedCopy(RelayParameters(), kSuccess));

    EXPECT_EQ(Calls(), Join({RelayStart(),
                             RelayUpload(),
                             {"Warning \"Error " + std::to_string(error) +
                              ": Failed to copy file C:\\data\\a.zip to relay relay.example, "
                              "/backupN/a.one.zip\""},
                             RelayEnd()}));
  }
}

TEST_F(CopyFileToRelay, LetsTheUnpackingDecideAfterAFailedUpload) {
  for (const uint32_t code : {0U, 1U}) {
    host.ForgetTranscript();
    AnswerStart();
    AnswerUpload(500);
    host.AnswerInvocation(code);

    const ZelContainer params = RelayParameters(kKeptFile, true);
    EXPECT_EQ(Copy(params), FinishedCopy(params, code));

    EXPECT_THAT(Calls(), Contains(ExtractionOnRelay("D:/backups/pc 7/", "a.one.zip", "a.one")));
  }
}

TEST_F(CopyFileToRelay, SucceedsWithAnErrorInTheLogWhenTheAliasStays) {
  AnswerStart();
  AnswerUpload(0, 1);

  EXPECT_EQ(Copy(RelayParameters()), FinishedCopy(RelayParameters(), kSuccess));

  EXPECT_EQ(
      Calls(),
      Join(
          {RelayStart(), RelayUpload(), RelayEnd(), {"Error \"Failed to delete alias backupN\""}}));
}

TEST_F(CopyFileToRelay, UnpacksAlsoWhenTheAliasStays) {
  AnswerStart();
  AnswerUpload(0, kInvokeUnreachable);
  host.AnswerInvocation(0);

  const ZelContainer params = RelayParameters(kKeptFile, true);
  EXPECT_EQ(Copy(params), FinishedCopy(params, kSuccess));

  EXPECT_EQ(Calls().back(), ExtractionOnRelay("D:/backups/pc 7/", "a.one.zip", "a.one"));
}

TEST_F(CopyFileToRelay, FailsWhenTheRelayCannotUnpack) {
  for (const uint32_t code : {1U, 12U, kInvokeUnknownAction}) {
    host.ForgetTranscript();
    AnswerStart();
    AnswerUpload();
    host.AnswerInvocation(code);

    const ZelContainer params = RelayParameters(kKeptFile, true);
    EXPECT_EQ(Copy(params), FinishedCopy(params, kFailure));

    EXPECT_EQ(Calls().back(), "Error \"Failed to extract 'D:/backups/pc 7/a.one.zip'.\"");
  }
}

TEST_F(CopyFileToRelay, TurnsTlsAndProofsOnIndependently) {
  for (const auto& [ssl, pac] : {std::pair{true, false}, {false, true}, {true, true}}) {
    host.ForgetTranscript();
    AnswerStart();
    AnswerClient(host, ssl, pac);
    host.Answer("HttpClient::SendAndRecv", 0);
    host.AnswerInvocation(0);

    EXPECT_EQ(Copy(RelayParameters()), FinishedCopy(RelayParameters(), kSuccess));

    EXPECT_EQ(Calls(), Join({RelayStart(),
                             ClientCalls(ssl, pac),
                             RelayProgress(),
                             {SendingToRelay()},
                             RelayEnd()}));
  }
}

TEST_F(CopyFileToRelay, HandsOnContextsThatAreNull) {
  AnswerStart();
  host.Answer("ZelAgentGetDebugContext", 0);
  host.Answer("AgentSecuritySslForceSecCli", 1);
  host.Answer("AgentSecuritySslCliCtxAcquire", 0);
  host.Answer("AgentSecurityPacForceSecCli", 1);
  host.Answer("AgentSecurityPacShrCtxAcquire", 0);
  host.Answer("HttpClient::SendAndRecv", 99);
  host.AnswerInvocation(0);

  EXPECT_EQ(Copy(RelayParameters()), FinishedCopy(RelayParameters(), kSuccess));

  for (const char* line : {"HttpClient::SetDebugContext(null)", "HttpClient::EnableSsl(null)",
                           "HttpClient::EnablePac(null)"}) {
    EXPECT_THAT(Calls(), Contains(line));
  }
}

TEST_F(CopyFileToRelay, WritesNothingBeforeTheEnd) {
  const ZelContainer params = RelayParameters(kKeptFile, true);
  AnswerStart(1);
  ExpectKeysToStay(KeysAtEachCall("CoreUtilsCopyFileToRelay", params), 3);
  for (const uint32_t code : {0U, 1U}) {
    AnswerStart();
    AnswerUpload(7, 1);
    host.AnswerInvocation(code);
    ExpectKeysToStay(KeysAtEachCall("CoreUtilsCopyFileToRelay", params), 3);
  }
}

TEST_F(CopyFileToRelay, ReplacesAnErrorCodeThatWasSent) {
  ZelContainer text = RelayParameters();
  text.SetString("ErrorCode", "x", kNoIndex);
  ZelContainer number = RelayParameters();
  number.SetInt32("ErrorCode", 1, kNoIndex);
  for (const ZelContainer& params : {text, number}) {
    AnswerStart();
    AnswerUpload();
    EXPECT_EQ(Copy(params), FinishedCopy(params, kSuccess));
    AnswerStart(1);
    EXPECT_EQ(Copy(params), FinishedCopy(params, kFailure));
  }
}

// ---- where the file goes ----

struct Place {
  const char* destination;
  const char* aliasPath;
  const char* name;
  /// In front of the name when the relay unpacks.
  const char* directory;
  const char* nameWithoutExtension;
};

TEST_F(CopyFileToRelay, TakesTheDestinationApart) {
  const Place places[] = {
      {"C:\\dir\\file.zip", "C:/dir/", "file.zip", "C:/dir/", "file"},
      {"C:/dir\\sub/file.tar.gz", "C:/dir/sub/", "file.tar.gz", "C:/dir/sub/", "file.tar"},
      {"/srv/backups/file", "/srv/backups/", "file", "/srv/backups/", "file"},
      {"\\\\srv\\share\\d\\f.zip", "//srv/share/d/", "f.zip", "//srv/share/d/", "f"},
      {"C:file.zip", "C:", "file.zip", "C:/", "file"},
      {"file.zip", "", "file.zip", "/", "file"},
      {"C:\\dir\\", "C:/dir/", "", "C:/dir/", ""},
      {"C:\\100%S\\%d.zip", "C:/100%S/", "%d.zip", "C:/100%S/", "%d"},
      {"", "", "", "/", ""},
  };
  for (const Place& place : places) {
    host.ForgetTranscript();
    AnswerStart();
    AnswerUpload();
    host.AnswerInvocation(0);
    const ZelContainer params = RelayParameters(place.destination, true);

    EXPECT_EQ(Copy(params), FinishedCopy(params, kSuccess));

    const std::string container = "{AliasName: String \"backupN\", AliasPath: String \"" +
                                  std::string(place.aliasPath) + "\", AliasTemporary: Bool false}";
    const Lines calls = Calls();
    EXPECT_THAT(calls, Contains(Alias("HttpProtocolAddAlias", container)));
    EXPECT_THAT(calls, Contains(SendingToRelay("/backupN/" + std::string(place.name))));
    EXPECT_THAT(calls, Contains(Alias("HttpProtocolDeleteAlias", container)));
    EXPECT_EQ(calls.back(),
              ExtractionOnRelay(place.directory, place.name, place.nameWithoutExtension));
  }
}

// ---- what is missing ----

TEST_F(CopyFileToRelay, GoesOnWithoutParameters) {
  AnswerStart();
  AnswerUpload(26);

  EXPECT_EQ(Copy({}), FinishedCopy({}, kSuccess));

  EXPECT_THAT(Calls(), Contains("Warning \"Error 26: Failed to copy file  to relay relay.example, "
                                "/backupN/\""));
}

TEST_F(CopyFileToRelay, TakesPathsThatAreNoTextsAsEmpty) {
  ZelContainer numbers;
  numbers.SetInt32("SourcePath", 1, kNoIndex);
  numbers.SetInt32("DestinationPath", 2, kNoIndex);
  ZelContainer lists;
  lists.SetString("SourcePath", kSentFile, 0);
  lists.SetString("DestinationPath", kKeptFile, 0);
  for (const ZelContainer& params : {numbers, lists}) {
    host.ForgetTranscript();
    AnswerStart();
    AnswerUpload();

    EXPECT_EQ(Copy(params), FinishedCopy(params, kSuccess));

    EXPECT_THAT(Calls(), Contains("Print \"copying file  to relay relay.example, /backupN/\""));
  }
}

TEST_F(CopyFileToRelay, TakesAFlagThatIsNoneAsFalse) {
  ZelContainer number = RelayParameters();
  number.SetInt32("IsZippedFile", 1, kNoIndex);
  for (const ZelContainer& params :
       {Texts({{"SourcePath", kSentFile}, {"DestinationPath", kKeptFile}}), number,
        Texts({{"SourcePath", kSentFile},
               {"DestinationPath", kKeptFile},
               {"IsZippedFile", "true"}})}) {
    host.ForgetTranscript();
    AnswerStart();
    AnswerUpload();

    EXPECT_EQ(Copy(params), FinishedCopy(params, kSuccess));

    EXPECT_EQ(Calls(), Join({RelayStart(), RelayUpload(), RelayEnd()}));
  }
}

TEST_F(CopyFileToRelay, GoesOnWithoutARelay) {
  host.AnswerInvocation(1);
  host.AnswerInvocation(kInvokeUnknownAction);
  host.AnswerInvocation(1);
  host.AnswerText("ZelAgentGetName", "");
  host.AnswerText("ZelAgentGetHttpPassword", "");
  host.AnswerInvocation(0);
  AnswerUpload(99);

  EXPECT_EQ(Copy(RelayParameters()), FinishedCopy(RelayParameters(), kSuccess));

  EXPECT_EQ(Calls(), Join({{InvokedHere("RelayGetValues"), InvokedHere("AgentGetIPAddress"),
                            InvokedHere("HttpProtocolGetParams"), "ZelAgentGetName()",
                            "ZelAgentGetHttpPassword(\"\")",
                            InvokedAt("\"\"", "http://:@:0", "HttpProtocolAddAlias", kAlias)},
                           ClientCalls(false, false, "\"\", \"\""),
                           {"Print \"Sender is ':0' and Receiver is ':0'\"",
                            "Print \"copying file C:\\data\\a.zip to relay , /backupN/a.one.zip\"",
                            "HttpClient::SendAndRecv(\"\", \"\", {4, \"/backupN/a.one.zip\", "
                            "\"C:\\data\\a.zip\", \"\"}, {0}, 0, 1, null)",
                            "Warning \"Error 99: Failed to copy file C:\\data\\a.zip to relay , "
                            "/backupN/a.one.zip\"",
                            "~HttpClient",
                            InvokedAt("\"\"", "http://:@:0", "HttpProtocolDeleteAlias", kAlias)}}));
}

TEST_F(CopyFileToRelay, UsesWhatFailingActionsOfThisAgentAnsweredAllTheSame) {
  host.AnswerInvocation(1, [](ZelContainer& work) {
    work.SetContainer("Values", Texts({{"ParentName", "other"}, {"ParentGuid", "g"}}), kNoIndex);
  });
  AnswerSender(host);
  host.AnswerInvocation(1);

  EXPECT_EQ(Copy(RelayParameters()), FinishedCopy(RelayParameters(), kFailure));

  EXPECT_THAT(Calls(), Contains(InvokedAt("\"g\"", "http://agent7:pw@other:0",
                                          "HttpProtocolAddAlias", kAlias)));
}

TEST_F(CopyFileToRelay, ShowsTheRelaysPortSignedAndItsOwnUnsigned) {
  AnswerRelay("r", -1);
  host.AnswerInvocation(0);
  host.AnswerInvocation(0, [](ZelContainer& work) {
    ZelContainer values;
    values.SetInt32("Port", -1, kNoIndex);
    work.SetContainer("Values", values, kNoIndex);
  });
  host.AnswerText("ZelAgentGetName", "a");
  host.AnswerText("ZelAgentGetHttpPassword", "p");
  host.AnswerInvocation(0);
  AnswerUpload();

  EXPECT_EQ(Copy(RelayParameters()), FinishedCopy(RelayParameters(), kSuccess));

  const Lines calls = Calls();
  EXPECT_THAT(calls, Contains("Print \"Sender is ':4294967295' and Receiver is 'r:-1'\""));
  EXPECT_THAT(calls, Contains(InvokedAt(kGuid, "http://a:p@r:-1", "HttpProtocolAddAlias", kAlias)));
}

TEST_F(CopyFileToRelay, AsksForTheAddressWithAnEmptyContainer) {
  AnswerRelay();
  // Neither what the relay's values nor what the address left in the container is sent on.
  host.AnswerInvocation(0, [](ZelContainer& work) { work.SetString("Left", "x", kNoIndex); });
  host.AnswerInvocation(0);
  host.AnswerText("ZelAgentGetName", "agent7");
  host.AnswerText("ZelAgentGetHttpPassword", "pw");
  host.AnswerInvocation(1);

  EXPECT_EQ(Copy(RelayParameters()), FinishedCopy(RelayParameters(), kFailure));

  EXPECT_EQ(Calls(), Join({RelayStart(), {"Error \"Failed to add alias backupN\""}}));
}

TEST_F(CopyFileToRelay, LogsInWithWhatStandsInTheRelaysUrl) {
  AnswerRelay("a relay");
  AnswerSender(host);
  host.AnswerInvocation(0);
  AnswerUpload();

  EXPECT_EQ(Copy(RelayParameters()), FinishedCopy(RelayParameters(), kSuccess));

  // No URL has a blank in its host, so it has no parts.
  EXPECT_THAT(Calls(), Contains("HttpClient::SetAuthentification(\"\", \"\")"));
}

}  // namespace
