#include <string>

#include "tests/contract/transfer_test.h"

namespace {

using ::testing::Contains;

constexpr const char* kUrl = "http://agent7:pw@relay.example:8080";
constexpr const char* kGuid = "\"guid-9\"";
constexpr const char* kSource = "C:\\data\\a.zip";
constexpr const char* kDestination = "D:\\backups\\pc 7\\a.one.zip";
constexpr const char* kAlias =
    "{AliasName: String \"backupN\", AliasPath: String \"D:/backups/pc 7/\", AliasTemporary: Bool "
    "false}";
constexpr const char* kResource = "/backupN/a.one.zip";

ZelContainer Parameters(const char* destination = kDestination, bool isZipped = false) {
  ZelContainer params = Texts({{"SourcePath", kSource}, {"DestinationPath", destination}});
  params.SetBool("IsZippedFile", isZipped, kNoIndex);
  return params;
}

/// The answer: the parameters, and the code besides.
Outcome Finished(ZelContainer params, ResultCode code) {
  params.SetInt32("ErrorCode", static_cast<int32_t>(code), kNoIndex);
  return {code, Describe(params)};
}

std::string Alias(const std::string& action, const std::string& container = kAlias) {
  return InvokedAt(kGuid, kUrl, action, container);
}

std::string Sending(const std::string& resource = kResource) {
  return "HttpClient::SendAndRecv(\"guid-9\", \"relay.example\", {4, \"" + resource +
         "\", \"C:\\data\\a.zip\", \"\"}, {0}, 8080, 1, null)";
}

std::string Extraction(const std::string& directory, const std::string& name,
                       const std::string& nameWithoutExtension) {
  return InvokedAt(kGuid, kUrl, "CoreUtilsExtractFile",
                   "{FilePath: String \"" + directory + name + "\", DestinationPath: String \"" +
                       directory + nameWithoutExtension + "\"}");
}

Lines Start() {
  return Join({{InvokedHere("RelayGetValues")}, SenderCalls(), {Alias("HttpProtocolAddAlias")}});
}

Lines Progress() {
  return {"Print \"Sender is '10.0.0.7:7460' and Receiver is 'relay.example:8080'\"",
          "Print \"copying file C:\\data\\a.zip to relay relay.example, /backupN/a.one.zip\""};
}

Lines Upload() {
  return Join({ClientCalls(), Progress(), {Sending()}});
}

Lines End() {
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

  EXPECT_EQ(Copy(Parameters()), Finished(Parameters(), kSuccess));

  EXPECT_EQ(Calls(), Join({Start(), Upload(), End()}));
}

TEST_F(CopyFileToRelay, UnpacksOnTheRelayWhenTheAliasIsGone) {
  AnswerStart();
  AnswerUpload();
  host.AnswerInvocation(0);

  const ZelContainer params = Parameters(kDestination, true);
  EXPECT_EQ(Copy(params), Finished(params, kSuccess));

  EXPECT_EQ(
      Calls(),
      Join({Start(), Upload(), End(), {Extraction("D:/backups/pc 7/", "a.one.zip", "a.one")}}));
}

TEST_F(CopyFileToRelay, SendsNothingWithoutAnAlias) {
  for (const uint32_t code : {1U, 12U, kInvokeUnreachable}) {
    host.ForgetTranscript();
    AnswerStart(code);

    const ZelContainer params = Parameters(kDestination, true);
    EXPECT_EQ(Copy(params), Finished(params, kFailure));

    EXPECT_EQ(Calls(), Join({Start(), {"Error \"Failed to add alias backupN\""}}));
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

  EXPECT_EQ(Copy(Parameters()), Finished(Parameters(), kSuccess));

  EXPECT_EQ(Calls().back(), Alias("HttpProtocolDeleteAlias",
                                  "{AliasName: String \"backupN\", AliasPath: String \"E:/\", "
                                  "AliasTemporary: Bool false, Ticket: String \"t\"}"));
}

TEST_F(CopyFileToRelay, SendsWhileTheAliasIsThere) {
  AnswerStart();
  AnswerClient(host);
  Lines callsSoFar;
  host.AnswerWork("HttpClient::SendAndRecv", 0, [&] { callsSoFar = Calls(); });
  host.AnswerInvocation(0);

  EXPECT_EQ(Copy(Parameters()), Finished(Parameters(), kSuccess));

  EXPECT_EQ(callsSoFar, Join({Start(), Upload()}));
}

TEST_F(CopyFileToRelay, SucceedsWithAWarningWhenTheUploadFails) {
  for (const int error : {403, 7, -1}) {
    host.ForgetTranscript();
    AnswerStart();
    AnswerUpload(error);

    EXPECT_EQ(Copy(Parameters()), Finished(Parameters(), kSuccess));

    EXPECT_EQ(Calls(), Join({Start(),
                             Upload(),
                             {"Warning \"Error " + std::to_string(error) +
                              ": Failed to copy file C:\\data\\a.zip to relay relay.example, "
                              "/backupN/a.one.zip\""},
                             End()}));
  }
}

TEST_F(CopyFileToRelay, LetsTheUnpackingDecideAfterAFailedUpload) {
  for (const uint32_t code : {0U, 1U}) {
    host.ForgetTranscript();
    AnswerStart();
    AnswerUpload(500);
    host.AnswerInvocation(code);

    const ZelContainer params = Parameters(kDestination, true);
    EXPECT_EQ(Copy(params), Finished(params, code));

    EXPECT_THAT(Calls(), Contains(Extraction("D:/backups/pc 7/", "a.one.zip", "a.one")));
  }
}

TEST_F(CopyFileToRelay, SucceedsWithAnErrorInTheLogWhenTheAliasStays) {
  AnswerStart();
  AnswerUpload(0, 1);

  EXPECT_EQ(Copy(Parameters()), Finished(Parameters(), kSuccess));

  EXPECT_EQ(Calls(),
            Join({Start(), Upload(), End(), {"Error \"Failed to delete alias backupN\""}}));
}

TEST_F(CopyFileToRelay, UnpacksAlsoWhenTheAliasStays) {
  AnswerStart();
  AnswerUpload(0, kInvokeUnreachable);
  host.AnswerInvocation(0);

  const ZelContainer params = Parameters(kDestination, true);
  EXPECT_EQ(Copy(params), Finished(params, kSuccess));

  EXPECT_EQ(Calls().back(), Extraction("D:/backups/pc 7/", "a.one.zip", "a.one"));
}

TEST_F(CopyFileToRelay, FailsWhenTheRelayCannotUnpack) {
  for (const uint32_t code : {1U, 12U, kInvokeUnknownAction}) {
    host.ForgetTranscript();
    AnswerStart();
    AnswerUpload();
    host.AnswerInvocation(code);

    const ZelContainer params = Parameters(kDestination, true);
    EXPECT_EQ(Copy(params), Finished(params, kFailure));

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

    EXPECT_EQ(Copy(Parameters()), Finished(Parameters(), kSuccess));

    EXPECT_EQ(Calls(), Join({Start(), ClientCalls(ssl, pac), Progress(), {Sending()}, End()}));
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

  EXPECT_EQ(Copy(Parameters()), Finished(Parameters(), kSuccess));

  for (const char* line : {"HttpClient::SetDebugContext(null)", "HttpClient::EnableSsl(null)",
                           "HttpClient::EnablePac(null)"}) {
    EXPECT_THAT(Calls(), Contains(line));
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
    const ZelContainer params = Parameters(place.destination, true);

    EXPECT_EQ(Copy(params), Finished(params, kSuccess));

    const std::string container = "{AliasName: String \"backupN\", AliasPath: String \"" +
                                  std::string(place.aliasPath) + "\", AliasTemporary: Bool false}";
    const Lines calls = Calls();
    EXPECT_THAT(calls, Contains(Alias("HttpProtocolAddAlias", container)));
    EXPECT_THAT(calls, Contains(Sending("/backupN/" + std::string(place.name))));
    EXPECT_THAT(calls, Contains(Alias("HttpProtocolDeleteAlias", container)));
    EXPECT_EQ(calls.back(), Extraction(place.directory, place.name, place.nameWithoutExtension));
  }
}

// ---- what is missing ----

TEST_F(CopyFileToRelay, GoesOnWithoutParameters) {
  AnswerStart();
  AnswerUpload(26);

  EXPECT_EQ(Copy({}), Finished({}, kSuccess));

  EXPECT_THAT(Calls(), Contains("Warning \"Error 26: Failed to copy file  to relay relay.example, "
                                "/backupN/\""));
}

TEST_F(CopyFileToRelay, TakesAFlagThatIsNoneAsFalse) {
  ZelContainer number = Parameters();
  number.SetInt32("IsZippedFile", 1, kNoIndex);
  for (const ZelContainer& params :
       {Texts({{"SourcePath", kSource}, {"DestinationPath", kDestination}}), number,
        Texts({{"SourcePath", kSource},
               {"DestinationPath", kDestination},
               {"IsZippedFile", "true"}})}) {
    host.ForgetTranscript();
    AnswerStart();
    AnswerUpload();

    EXPECT_EQ(Copy(params), Finished(params, kSuccess));

    EXPECT_EQ(Calls(), Join({Start(), Upload(), End()}));
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

  EXPECT_EQ(Copy(Parameters()), Finished(Parameters(), kSuccess));

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

  EXPECT_EQ(Copy(Parameters()), Finished(Parameters(), kFailure));

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

  EXPECT_EQ(Copy(Parameters()), Finished(Parameters(), kSuccess));

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

  EXPECT_EQ(Copy(Parameters()), Finished(Parameters(), kFailure));

  EXPECT_EQ(Calls(), Join({Start(), {"Error \"Failed to add alias backupN\""}}));
}

TEST_F(CopyFileToRelay, LogsInWithWhatStandsInTheRelaysUrl) {
  AnswerRelay("a relay");
  AnswerSender(host);
  host.AnswerInvocation(0);
  AnswerUpload();

  EXPECT_EQ(Copy(Parameters()), Finished(Parameters(), kSuccess));

  // No URL has a blank in its host, so it has no parts.
  EXPECT_THAT(Calls(), Contains("HttpClient::SetAuthentification(\"\", \"\")"));
}

}  // namespace
