#include <string>
#include <utility>
#include <vector>

#include "tests/contract/transfer_test.h"

namespace {

using ::testing::Contains;
using ::testing::Not;
using ::testing::StartsWith;

constexpr const char* kDeviceUrl = "http://agent7:pw@pc.example:7461";

// ---- CoreUtilsRestoreBackup ----

ZelContainer RestoreParameters(const char* name, bool last = false, const char* source = "C:\\b",
                               const char* destination = "D:\\restore") {
  ZelContainer params = Texts({{"SourcePath", source},
                               {"DestinationPath", destination},
                               {"Name", name},
                               {"HostName", "pc.example"}});
  params.SetBool("Last", last, kNoIndex);
  params.SetInt32("HttpPort", 7461, kNoIndex);
  return params;
}

Outcome Restored(const std::string& path) {
  return {kSuccess, "{Name: String \"" + path + "\", ErrorCode: Int32 0}"};
}

std::string AddAlias(const std::string& path = "D:/restore/", const std::string& url = kDeviceUrl) {
  return InvokedAt("null", url, "HttpProtocolAddAlias",
                   "{ServerName: String \"BackupRestore\", AliasName: String \"backupN\", "
                   "AliasPath: String \"" +
                       path + "\", AliasTemporary: Bool false}");
}

std::string DeleteAlias() {
  return InvokedAt("null", kDeviceUrl, "HttpProtocolDeleteAlias",
                   "{ServerName: String \"BackupRestore\", AliasName: String \"backupN\", "
                   "AliasTemporary: Bool false}");
}

std::string SendingBackup(const std::string& path, const std::string& name) {
  return "HttpClient::SendAndRecv(null, \"pc.example\", {4, \"/backupN/" + name + "\", \"" + path +
         "\", \"\"}, {0}, 7461, 1, null)";
}

Lines RestoreProgress(const std::string& path, const std::string& name) {
  return {"Print \"Sender is '10.0.0.7:7460'\"",
          "Print \"copying file " + path + " from relay 10.0.0.7, /backupN/" + name + "\""};
}

Lines RestoreStart() {
  return Join({SenderCalls(), {AddAlias()}});
}

Lines BackupUpload(const std::string& path, const std::string& name) {
  return Join({ClientCalls(), RestoreProgress(path, name), {SendingBackup(path, name)}});
}

Lines RestoreEnd() {
  return {"~HttpClient", "Print \"Deleting alias backupN\"", DeleteAlias()};
}

/// All that is done with a file that is there.
Lines Transfer(const std::string& path, const std::string& name) {
  return Join({RestoreStart(), BackupUpload(path, name), RestoreEnd()});
}

class RestoreBackup : public TransferTest {
 protected:
  void AnswerStart(uint32_t aliasCode = 0) {
    AnswerSender(host);
    host.AnswerInvocation(aliasCode);
  }
  void AnswerUpload(int error = 0, uint32_t deletionCode = 0) {
    AnswerClient(host);
    host.Answer("HttpClient::SendAndRecv", error);
    host.AnswerInvocation(deletionCode);
  }
  void AnswerTransfer() {
    AnswerStart();
    AnswerUpload();
  }
  Outcome Restore(const ZelContainer& params) { return Run("CoreUtilsRestoreBackup", params); }

  /// The entry of the directory that is chosen as the newest backup of N.
  std::string Newest(const std::vector<std::string>& names, const char* name = "N") {
    host.ForgetTranscript();
    std::vector<FakeHost::DirectoryEntry> entries;
    for (const std::string& entry : names) entries.push_back({entry, 0});
    host.AnswerDirectory(std::move(entries));
    AnswerTransfer();
    host.AnswerAlways("FileExists", 1);
    host.AnswerAlways("FileDelete", 0);
    const Outcome outcome = Restore(RestoreParameters(name, true));
    EXPECT_EQ(outcome.code, kSuccess);
    return ChoiceOf(outcome.container);
  }

 private:
  /// A directory's archive was looked for.
  std::string ChoiceOf(const std::string& container) const {
    constexpr std::string_view kStart = "{Name: String \"D:/restore/";
    std::string choice = container.substr(kStart.size());
    choice.resize(choice.find('"'));
    for (const std::string& line : host.Transcript()) {
      if (line.starts_with("FileExists(")) return choice.substr(0, choice.size() - 4);
    }
    return choice;
  }
};

TEST_F(RestoreBackup, SendsTheArchiveThatIsNamed) {
  AnswerTransfer();

  EXPECT_EQ(Restore(RestoreParameters("N_20120105.zip")), Restored("D:/restore/N_20120105.zip"));

  EXPECT_EQ(Calls(), Transfer("C:/b/N_20120105.zip", "N_20120105.zip"));
}

TEST_F(RestoreBackup, HoldsNoOtherRestoreUp) {
  AnswerStart();
  AnswerClient(host);
  host.AnswerWork("HttpClient::SendAndRecv", 0, [this] {
    host.ForgetTranscript();
    ExpectNotToWait([this] {
      AnswerTransfer();
      EXPECT_EQ(Restore(RestoreParameters("M.zip", false, "E:\\b", "E:\\back")),
                Restored("E:/back/M.zip"));
    });
    EXPECT_THAT(Calls(), Contains(AddAlias("E:/back/")));
    EXPECT_THAT(Calls(), Contains(SendingBackup("E:/b/M.zip", "M.zip")));
    host.ForgetTranscript();
    host.AnswerInvocation(0);
  });

  EXPECT_EQ(Restore(RestoreParameters("N.zip")), Restored("D:/restore/N.zip"));

  EXPECT_EQ(Calls(), RestoreEnd());
}

TEST_F(RestoreBackup, TakesTheExtensionInAnyCase) {
  AnswerTransfer();

  EXPECT_EQ(Restore(RestoreParameters("N.ZIP")), Restored("D:/restore/N.ZIP"));

  EXPECT_EQ(Calls(), Transfer("C:/b/N.ZIP", "N.ZIP"));
}

TEST_F(RestoreBackup, PacksADirectorySendsItAndDeletesTheArchive) {
  host.Answer("FileExists", 0);
  Lines callsSoFar;
  host.AnswerWork("GenericArchive::AddDirectory", 0, [&] { callsSoFar = host.Transcript(); });
  host.Answer("FileExists", 1);
  AnswerTransfer();
  host.Answer("FileDelete", 0);

  EXPECT_EQ(Restore(RestoreParameters("N_20120105")), Restored("D:/restore/N_20120105.zip"));

  const std::string path = "C:/b/N_20120105.zip";
  const Lines packing = {
      "FileExists(\"C:/b/N_20120105.zip\")", "GenericArchive(\"C:/b/N_20120105.zip\", 1)",
      "GenericArchive::AddDirectory(\"C:/b/N_20120105\", 1, 0, \"\", \"\", 6, null)"};
  EXPECT_EQ(callsSoFar, packing);
  EXPECT_EQ(Calls(), Join({packing,
                           {"~GenericArchive", "FileExists(\"C:/b/N_20120105.zip\")"},
                           Transfer(path, "N_20120105.zip"),
                           {"FileDelete(\"C:/b/N_20120105.zip\", 0)"}}));
}

TEST_F(RestoreBackup, UsesAnArchiveBesideTheDirectoryOnceAndDeletesIt) {
  host.Answer("FileExists", 1);
  host.Answer("FileExists", 1);
  AnswerTransfer();
  host.Answer("FileDelete", 0);

  EXPECT_EQ(Restore(RestoreParameters("N")), Restored("D:/restore/N.zip"));

  EXPECT_EQ(Calls(), Join({{"FileExists(\"C:/b/N.zip\")", "FileExists(\"C:/b/N.zip\")"},
                           Transfer("C:/b/N.zip", "N.zip"),
                           {"FileDelete(\"C:/b/N.zip\", 0)"}}));
}

TEST_F(RestoreBackup, FailsWithoutAnErrorCodeWhenThereIsNoArchive) {
  for (const int packed : {0, 5, -1}) {
    host.ForgetTranscript();
    host.Answer("FileExists", 0);
    host.Answer("GenericArchive::AddDirectory", packed);
    host.Answer("FileExists", 0);

    EXPECT_EQ(Restore(RestoreParameters("N")),
              (Outcome{kFailure, Describe(RestoreParameters("N"))}));

    EXPECT_EQ(host.Transcript(),
              (Lines{"FileExists(\"C:/b/N.zip\")", "GenericArchive(\"C:/b/N.zip\", 1)",
                     "GenericArchive::AddDirectory(\"C:/b/N\", 1, 0, \"\", \"\", 6, null)",
                     "~GenericArchive", "FileExists(\"C:/b/N.zip\")",
                     "Error \"Failed to find the zip file to restore: C:/b/N.zip\""}));
  }
}

TEST_F(RestoreBackup, SendsAnArchiveThatIsThereWhateverPackingAnswers) {
  host.Answer("FileExists", 0);
  host.Answer("GenericArchive::AddDirectory", -1);
  host.Answer("FileExists", 1);
  AnswerTransfer();
  host.Answer("FileDelete", 0);

  EXPECT_EQ(Restore(RestoreParameters("N")), Restored("D:/restore/N.zip"));
}

TEST_F(RestoreBackup, SendsNothingWithoutAnAliasAndKeepsTheParameters) {
  for (const uint32_t code : {1U, 12U, kInvokeUnreachable}) {
    host.ForgetTranscript();
    AnswerStart(code);
    ZelContainer expected = RestoreParameters("N.zip");
    expected.SetInt32("ErrorCode", 1, kNoIndex);

    EXPECT_EQ(Restore(RestoreParameters("N.zip")), (Outcome{kFailure, Describe(expected)}));

    EXPECT_EQ(Calls(), Join({RestoreStart(), {"Error \"Failed to add alias backupN\""}}));
  }
}

TEST_F(RestoreBackup, KeepsThePackedArchiveWithoutAnAlias) {
  host.Answer("FileExists", 0);
  host.Answer("GenericArchive::AddDirectory", 0);
  host.Answer("FileExists", 1);
  AnswerStart(1);

  EXPECT_EQ(Restore(RestoreParameters("N")).code, kFailure);

  EXPECT_THAT(Calls(), Not(Contains(StartsWith("FileDelete"))));
}

TEST_F(RestoreBackup, DeletesTheAliasWithAContainerOfItsOwn) {
  AnswerSender(host);
  host.AnswerInvocation(0, [](ZelContainer& alias) {
    alias.SetString("AliasName", "other", kNoIndex);
    alias.SetString("Ticket", "t", kNoIndex);
  });
  AnswerUpload();

  EXPECT_EQ(Restore(RestoreParameters("N.zip")), Restored("D:/restore/N.zip"));

  EXPECT_EQ(Calls().back(), DeleteAlias());
}

TEST_F(RestoreBackup, SucceedsWithAWarningWhenTheUploadFails) {
  for (const int error : {507, -1}) {
    host.ForgetTranscript();
    AnswerStart();
    AnswerUpload(error);

    EXPECT_EQ(Restore(RestoreParameters("N.zip")), Restored("D:/restore/N.zip"));

    EXPECT_EQ(Calls(), Join({RestoreStart(),
                             BackupUpload("C:/b/N.zip", "N.zip"),
                             {"Warning \"Error " + std::to_string(error) +
                              ": Failed to copy file C:/b/N.zip from relay pc.example, "
                              "/backupN/N.zip\""},
                             RestoreEnd()}));
  }
}

TEST_F(RestoreBackup, DeletesThePackedArchiveAlsoAfterAFailedUpload) {
  host.Answer("FileExists", 1);
  host.Answer("FileExists", 1);
  AnswerStart();
  AnswerUpload(7);
  host.Answer("FileDelete", 13);

  EXPECT_EQ(Restore(RestoreParameters("N")), Restored("D:/restore/N.zip"));

  EXPECT_EQ(Calls().back(), "FileDelete(\"C:/b/N.zip\", 0)");
}

TEST_F(RestoreBackup, SucceedsWithAnErrorInTheLogWhenTheAliasStays) {
  host.Answer("FileExists", 1);
  host.Answer("FileExists", 1);
  AnswerStart();
  AnswerUpload(0, kInvokeUnreachable);
  host.Answer("FileDelete", 0);

  EXPECT_EQ(Restore(RestoreParameters("N")), Restored("D:/restore/N.zip"));

  EXPECT_EQ(Calls(),
            Join({{"FileExists(\"C:/b/N.zip\")", "FileExists(\"C:/b/N.zip\")"},
                  Transfer("C:/b/N.zip", "N.zip"),
                  {"Error \"Failed to delete alias backupN\"", "FileDelete(\"C:/b/N.zip\", 0)"}}));
}

TEST_F(RestoreBackup, TurnsTlsAndProofsOnIndependently) {
  for (const auto& [ssl, pac] : {std::pair{true, false}, {false, true}, {true, true}}) {
    host.ForgetTranscript();
    AnswerStart();
    AnswerClient(host, ssl, pac);
    host.Answer("HttpClient::SendAndRecv", 0);
    host.AnswerInvocation(0);

    EXPECT_EQ(Restore(RestoreParameters("N.zip")), Restored("D:/restore/N.zip"));

    EXPECT_EQ(Calls(), Join({RestoreStart(),
                             ClientCalls(ssl, pac),
                             RestoreProgress("C:/b/N.zip", "N.zip"),
                             {SendingBackup("C:/b/N.zip", "N.zip")},
                             RestoreEnd()}));
  }
}

TEST_F(RestoreBackup, LogsInWithItsNameWhateverTheUrlIs) {
  AnswerSender(host, "agent 7");
  host.AnswerInvocation(0);
  AnswerUpload();

  EXPECT_EQ(Restore(RestoreParameters("N.zip")), Restored("D:/restore/N.zip"));

  EXPECT_THAT(Calls(), Contains("HttpClient::SetAuthentification(\"agent 7\", \"pw\")"));
  EXPECT_THAT(Calls(), Contains(AddAlias("D:/restore/", "http://agent 7:pw@pc.example:7461")));
}

TEST_F(RestoreBackup, NormalisesBothDirectories) {
  const std::pair<const char*, const char*> directories[] = {{"D:\\restore", "D:/restore/"},
                                                             {"D:/restore/", "D:/restore/"},
                                                             {"D:\\a\\b\\", "D:/a/b/"},
                                                             {"/srv/a\\b", "/srv/a/b/"},
                                                             {"\\\\s\\share", "//s/share/"},
                                                             {"100%S", "100%S/"},
                                                             {"", "/"}};
  for (const auto& [given, normal] : directories) {
    host.ForgetTranscript();
    AnswerTransfer();

    EXPECT_EQ(Restore(RestoreParameters("N.zip", false, given, given)),
              Restored(std::string(normal) + "N.zip"));

    EXPECT_THAT(Calls(), Contains(AddAlias(normal)));
    EXPECT_THAT(Calls(), Contains(SendingBackup(std::string(normal) + "N.zip", "N.zip")));
  }
}

TEST_F(RestoreBackup, GoesOnWithoutParameters) {
  AnswerSender(host);
  host.AnswerInvocation(0);
  AnswerUpload(3);
  host.Answer("FileDelete", 21);

  EXPECT_EQ(Restore({}), Restored("/"));

  const Lines calls = Calls();
  EXPECT_THAT(calls, Contains(AddAlias("/", "http://agent7:pw@:0")));
  EXPECT_THAT(calls, Contains("HttpClient::SendAndRecv(null, \"\", {4, \"/backupN/\", \"/\", "
                              "\"\"}, {0}, 0, 1, null)"));
  EXPECT_EQ(calls.back(), "FileDelete(\"/\", 0)");
}

TEST_F(RestoreBackup, TakesParametersOfOtherTypesAsAbsent) {
  const ZelContainer number = [] {
    ZelContainer container;
    for (const char* key : {"SourcePath", "DestinationPath", "Name", "HostName", "Last"}) {
      container.SetInt32(key, 1, kNoIndex);
    }
    container.SetString("HttpPort", "7461", kNoIndex);
    return container;
  }();
  ZelContainer lists;
  for (const char* key : {"SourcePath", "DestinationPath", "Name", "HostName"}) {
    lists.SetString(key, "x", 0);
  }
  lists.SetBool("Last", true, 0);
  lists.SetInt32("HttpPort", 7461, 0);
  for (const ZelContainer& params : {number, lists}) {
    host.ForgetTranscript();
    AnswerTransfer();
    host.Answer("FileDelete", 21);

    EXPECT_EQ(Restore(params), Restored("/"));

    const Lines calls = Calls();
    EXPECT_THAT(calls, Contains(AddAlias("/", "http://agent7:pw@:0")));
    EXPECT_EQ(calls.back(), "FileDelete(\"/\", 0)");
  }
}

TEST_F(RestoreBackup, TakesAFlagThatIsNoneAsFalse) {
  ZelContainer absent = RestoreParameters("N.zip", true);
  absent.Remove("Last");
  ZelContainer text = absent;
  text.SetString("Last", "true", kNoIndex);
  for (const ZelContainer& params : {absent, text}) {
    host.ForgetTranscript();
    AnswerTransfer();

    EXPECT_EQ(Restore(params), Restored("D:/restore/N.zip"));

    EXPECT_EQ(Calls(), Transfer("C:/b/N.zip", "N.zip"));
  }
}

TEST_F(RestoreBackup, KeepsTheParametersUntilTheEnd) {
  AnswerStart();
  AnswerUpload(7, 1);
  ExpectKeysToStay(KeysAtEachCall("CoreUtilsRestoreBackup", RestoreParameters("N.zip")), 6);
  AnswerStart(1);
  ExpectKeysToStay(KeysAtEachCall("CoreUtilsRestoreBackup", RestoreParameters("N.zip")), 6);
}

TEST_F(RestoreBackup, UsesWhatFailingActionsOfThisAgentAnsweredAllTheSame) {
  host.AnswerInvocation(1, [](ZelContainer& work) {
    work.SetString("IPAddress", "10.0.0.8", kNoIndex);
    work.SetString("Left", "x", kNoIndex);
  });
  host.AnswerInvocation(1, [](ZelContainer& work) {
    ZelContainer values;
    values.SetInt32("Port", -1, kNoIndex);
    work.SetContainer("Values", values, kNoIndex);
  });
  host.AnswerText("ZelAgentGetName", "agent7");
  host.AnswerText("ZelAgentGetHttpPassword", "pw");
  host.AnswerInvocation(0);
  AnswerUpload();

  EXPECT_EQ(Restore(RestoreParameters("N.zip")), Restored("D:/restore/N.zip"));

  const Lines calls = Calls();
  // With an empty container, whatever the question before left.
  EXPECT_EQ(calls.at(1), InvokedHere("HttpProtocolGetParams"));
  EXPECT_THAT(calls, Contains("Print \"Sender is '10.0.0.8:4294967295'\""));
  EXPECT_THAT(calls,
              Contains("Print \"copying file C:/b/N.zip from relay 10.0.0.8, /backupN/N.zip\""));
}

TEST_F(RestoreBackup, GoesOnWithoutKnowingItsOwnAddress) {
  host.AnswerInvocation(1);
  host.AnswerInvocation(1);
  host.AnswerText("ZelAgentGetName", "agent7");
  host.AnswerText("ZelAgentGetHttpPassword", "pw");
  host.AnswerInvocation(0);
  AnswerUpload();

  EXPECT_EQ(Restore(RestoreParameters("N.zip")), Restored("D:/restore/N.zip"));

  EXPECT_THAT(Calls(), Contains("Print \"Sender is ':0'\""));
  EXPECT_THAT(Calls(), Contains("Print \"copying file C:/b/N.zip from relay , /backupN/N.zip\""));
}

TEST_F(RestoreBackup, TakesAPortOfAnySignAsUnsigned) {
  ZelContainer params = RestoreParameters("N.zip");
  params.SetInt32("HttpPort", -1, kNoIndex);
  AnswerStart(1);

  EXPECT_EQ(Restore(params).code, kFailure);

  EXPECT_THAT(Calls(), Contains(AddAlias("D:/restore/", "http://agent7:pw@pc.example:4294967295")));
}

// ---- the newest backup ----

TEST_F(RestoreBackup, LooksForTheNewestInTheDirectoryAsItWasGiven) {
  host.AnswerDirectory({{"N_20120105.zip", 0}, {"other", 16}});
  AnswerTransfer();

  EXPECT_EQ(Restore(RestoreParameters("N", true)), Restored("D:/restore/N_20120105.zip"));

  EXPECT_EQ(Calls(), Join({{"OpenDirectory(\"C:\\b\")", "ReadDirectory", "ReadDirectory",
                            "ReadDirectory", "CloseDirectory"},
                           Transfer("C:/b/N_20120105.zip", "N_20120105.zip")}));
}

TEST_F(RestoreBackup, OffersTheDirectoryItselfWhenNoEntryMatches) {
  host.AnswerDirectory({{"N_2012.zip", 0}});
  AnswerStart();
  AnswerUpload(26);
  host.Answer("FileDelete", 21);

  EXPECT_EQ(Restore(RestoreParameters("N", true)), Restored("D:/restore/"));

  EXPECT_EQ(
      Calls(),
      Join({{"OpenDirectory(\"C:\\b\")", "ReadDirectory", "ReadDirectory", "CloseDirectory"},
            RestoreStart(),
            BackupUpload("C:/b/", ""),
            {"Warning \"Error 26: Failed to copy file C:/b/ from relay pc.example, /backupN/\""},
            RestoreEnd(),
            {"FileDelete(\"C:/b/\", 0)"}}));
}

TEST_F(RestoreBackup, GoesOnWithoutAChoiceWhenTheDirectoryCannotBeOpened) {
  host.Answer("OpenDirectory", 0);
  AnswerTransfer();
  host.Answer("FileDelete", 21);

  EXPECT_EQ(Restore(RestoreParameters("N", true)), Restored("D:/restore/"));

  EXPECT_EQ(Calls(), Join({{"OpenDirectory(\"C:\\b\")", "Detail \"Directory access error !\""},
                           Transfer("C:/b/", ""),
                           {"FileDelete(\"C:/b/\", 0)"}}));
}

TEST_F(RestoreBackup, GoesOnWithoutAChoiceWhenTheDirectoryHasNoEntries) {
  host.AnswerDirectory({});
  AnswerTransfer();
  host.Answer("FileDelete", 21);

  EXPECT_EQ(Restore(RestoreParameters("N", true)), Restored("D:/restore/"));

  EXPECT_EQ(Calls(), Join({{"OpenDirectory(\"C:\\b\")", "ReadDirectory",
                            "Detail \"File access error !\"", "CloseDirectory"},
                           Transfer("C:/b/", ""),
                           {"FileDelete(\"C:/b/\", 0)"}}));
}

TEST_F(RestoreBackup, ChoosesTheLatestDateWhereverItStands) {
  EXPECT_EQ(Newest({"N_20110101.zip", "N_20121231.zip", "N_20120105"}), "N_20121231.zip");
  EXPECT_EQ(Newest({"N_20121231", "N_20110101.zip", "N_20120105.zip"}), "N_20121231");
  EXPECT_EQ(Newest({"N_20120105.zip", "N_20120106.zip"}), "N_20120106.zip");
  EXPECT_EQ(Newest({"N_20120131.zip", "N_20120201.zip"}), "N_20120201.zip");
  EXPECT_EQ(Newest({"N_20111231.zip", "N_20120101.zip"}), "N_20120101.zip");
}

TEST_F(RestoreBackup, ChoosesTheLastReadOfEqualDates) {
  EXPECT_EQ(Newest({"N_20120105.zip", "N_20121231", "N_20121231.zip"}), "N_20121231.zip");
  EXPECT_EQ(Newest({"N_20120105.zip", "N_20121231.zip", "N_20121231"}), "N_20121231");
}

TEST_F(RestoreBackup, UsesTheArchiveBesideTheNewestDirectory) {
  host.AnswerDirectory({{"N_20121231.zip", 0}, {"N_20121231", 16}});
  host.Answer("FileExists", 1);
  host.Answer("FileExists", 1);
  AnswerTransfer();
  host.Answer("FileDelete", 0);

  EXPECT_EQ(Restore(RestoreParameters("N", true)), Restored("D:/restore/N_20121231.zip"));

  const Lines calls = Calls();
  EXPECT_THAT(calls, Not(Contains(StartsWith("GenericArchive"))));
  EXPECT_EQ(calls.back(), "FileDelete(\"C:/b/N_20121231.zip\", 0)");
}

TEST_F(RestoreBackup, ReadsTheDatesDigitsAsDecimal) {
  EXPECT_EQ(Newest({"N_20120708.zip", "N_20120809.zip"}), "N_20120809.zip");
  EXPECT_EQ(Newest({"N_20120809.zip", "N_20120708.zip"}), "N_20120809.zip");
  EXPECT_EQ(Newest({"N_20120907.zip", "N_20120908.zip", "N_20120907.zip"}), "N_20120908.zip");
  EXPECT_EQ(Newest({"N_20120909.zip", "N_20120807.zip"}), "N_20120909.zip");
  EXPECT_EQ(Newest({"N_20121010.zip", "N_20120908.zip"}), "N_20121010.zip");
}

TEST_F(RestoreBackup, PassesOverDatesThatTheCalendarDoesNotHave) {
  // The 29th of February of other years is the system's to judge: Wine takes it for one of March.
  for (const char* date :
       {"20120001", "20121301", "20121901", "20120100", "20120132", "20120230", "20120431"}) {
    const std::string impossible = "N_" + std::string(date) + ".zip";
    EXPECT_EQ(Newest({"N_20000101.zip", impossible}), "N_20000101.zip") << date;
    EXPECT_EQ(Newest({impossible}), "") << date;
  }
  EXPECT_EQ(Newest({"N_20120228.zip", "N_20120229.zip"}), "N_20120229.zip");
  EXPECT_EQ(Newest({"N_20000228.zip", "N_20000229.zip"}), "N_20000229.zip");
}

TEST_F(RestoreBackup, AdmitsMonthsFrom00To19AndDaysFrom00To39WhereTheDateIsAnother) {
  // What the pattern finds need not be a date of the calendar: the one that counts is at the end.
  for (const char* found : {"20120000", "20121939", "20000101", "99991231"}) {
    const std::string name = "N_" + std::string(found) + " of 20120106";
    EXPECT_EQ(Newest({"N_20120105.zip", name}), name);
  }
  for (const char* missed : {"20122005", "20120140", "19991231", "2012123"}) {
    EXPECT_EQ(Newest({"N_" + std::string(missed) + " of 20120106"}), "") << missed;
  }
}

TEST_F(RestoreBackup, PassesOverNamesWithoutADate) {
  for (const char* name : {"N", "N.zip", "N_", "N20120105.zip", "N_2012010.zip", "N_1201201.zip",
                           "N_19991231.zip", "N_20122105.zip", "N_20120140.zip", "M_20120105.zip",
                           "n_20120105.zip", "N_2012-01-05.zip", ".", ".."}) {
    EXPECT_EQ(Newest({name}), "") << name;
  }
}

TEST_F(RestoreBackup, FindsThePatternAnywhereAndTheDateAtTheEnd) {
  EXPECT_EQ(Newest({"N_20120105.zip", "old N_20120106.zip"}), "old N_20120106.zip");
  EXPECT_EQ(Newest({"N_20120105", "N_20110101 of 20120106"}), "N_20110101 of 20120106");
  EXPECT_EQ(Newest({"N_20120105.zip", "N_201201060"}), "N_20120105.zip");
  // The first second of all is one, too.
  EXPECT_EQ(Newest({"N_20110101 of 19700101"}), "N_20110101 of 19700101");
  // No date stands at the end of these.
  EXPECT_EQ(Newest({"N_20120105.zip", "N_20120106.bak"}), "N_20120105.zip");
  EXPECT_EQ(Newest({"N_20120105.zip", "N_20120106.ZIP"}), "N_20120105.zip");
  EXPECT_EQ(Newest({"N_20120106.zip.part"}), "");
}

TEST_F(RestoreBackup, TakesTheNameAsAPattern) {
  EXPECT_EQ(Newest({"ab_20120105.zip", "axb_20120106.zip"}, "a.?b"), "axb_20120106.zip");
  EXPECT_EQ(Newest({"N_20120105.zip"}, "("), "");
  EXPECT_EQ(Newest({"100%S_20120105.zip"}, "100%S"), "100%S_20120105.zip");
  EXPECT_EQ(Newest({"N_20120105.zip", "_20120106.zip"}, ""), "_20120106.zip");
}

TEST_F(RestoreBackup, RanksBySecondsOf32Bits) {
  // Their last day is 2106-02-07; what follows starts anew in 1970.
  EXPECT_EQ(Newest({"N_20120105.zip", "N_21060207.zip"}), "N_21060207.zip");
  EXPECT_EQ(Newest({"N_20120105.zip", "N_21060208.zip"}), "N_20120105.zip");
  EXPECT_EQ(Newest({"N_21060208.zip"}), "N_21060208.zip");
  EXPECT_EQ(Newest({"N_20371231.zip", "N_20390101.zip"}), "N_20390101.zip");
  EXPECT_EQ(Newest({"N_20120105.zip", "N_20121231.zip", "N_99991231.zip"}), "N_99991231.zip");
  // As often as they start anew, the seconds stay whole ones: these are 48 minutes apart.
  EXPECT_EQ(Newest({"N_34970214.zip", "N_20000101.zip"}), "N_34970214.zip");
}

TEST_F(RestoreBackup, RanksWhatWasBefore1970ByAnUnsignedDivision) {
  // The steps of 100 nanoseconds begin anew at 2^64: their seconds end up in 2037.
  EXPECT_EQ(Newest({"N_20380101.zip", "N_20110101 of 19691231"}), "N_20380101.zip");
  EXPECT_EQ(Newest({"N_20370101.zip", "N_20110101 of 19691231"}), "N_20110101 of 19691231");
}

// ---- CoreUtilsRestoreBackupFromRelay ----

class RestoreBackupFromRelay : public ModuleTest {
 protected:
  RestoreBackupFromRelay() {
    request_.SetString("HostName", "relay.example", kNoIndex);
    request_.SetInt32("HttpPort", 8080, kNoIndex);
    request_.SetContainer("Values", Texts({{"Name", "N"}, {"HostName", "pc"}}), kNoIndex);
  }
  void AnswerCredentials() {
    host.AnswerText("ZelAgentGetName", "agent7");
    host.AnswerText("ZelAgentGetHttpPassword", "pw");
  }
  Outcome Restore(const ZelContainer& params) {
    return Run("CoreUtilsRestoreBackupFromRelay", params);
  }
  static Lines Invocation(
      const std::string& url = "http://agent7:pw@relay.example:8080",
      const std::string& values = "{Name: String \"N\", HostName: String \"pc\"}") {
    return {"ZelAgentGetName()", "ZelAgentGetHttpPassword(\"agent7\")",
            InvokedAt("null", url, "CoreUtilsRestoreBackup", values)};
  }

  ZelContainer request_;
};

TEST_F(RestoreBackupFromRelay, HandsTheValuesToTheRelayAndAnswersWhereTheArchiveIs) {
  AnswerCredentials();
  host.AnswerInvocation(0, [](ZelContainer& values) {
    values.Clear();
    values.SetString("Name", "D:/restore/N.zip", kNoIndex);
    values.SetInt32("ErrorCode", 0, kNoIndex);
  });

  EXPECT_EQ(Restore(request_), Restored("D:/restore/N.zip"));

  EXPECT_EQ(host.Transcript(), Invocation());
}

/// An agent that is its own relay: the invocation comes back to it on another thread.
class RestoreBackupFromItself : public RestoreBackup {
 protected:
  void AnswerInvocationOfItself() {
    host.AnswerInvocation(0, [this](ZelContainer& values) {
      values_ = values;
      ExpectNotToWait([this] {
        AnswerTransfer();
        EXPECT_EQ(RunIn(host, "CoreUtilsRestoreBackup", &values_), kSuccess);
      });
      values = values_;
    });
  }

 private:
  ZelContainer values_;
};

TEST_F(RestoreBackupFromItself, AnswersWhatTheRestoreInItsMidstAnswered) {
  ZelContainer request = Texts({{"HostName", "127.0.0.1"}});
  request.SetInt32("HttpPort", 7460, kNoIndex);
  request.SetContainer("Values", RestoreParameters("N.zip"), kNoIndex);
  host.AnswerText("ZelAgentGetName", "agent7");
  host.AnswerText("ZelAgentGetHttpPassword", "pw");
  AnswerInvocationOfItself();

  EXPECT_EQ(Run("CoreUtilsRestoreBackupFromRelay", request), Restored("D:/restore/N.zip"));

  const Lines invocation = {
      "ZelAgentGetName()", "ZelAgentGetHttpPassword(\"agent7\")",
      InvokedAt("null", "http://agent7:pw@127.0.0.1:7460", "CoreUtilsRestoreBackup",
                Describe(RestoreParameters("N.zip")))};
  EXPECT_EQ(Calls(), Join({invocation, Transfer("C:/b/N.zip", "N.zip")}));
}

TEST_F(RestoreBackupFromRelay, DoesNotLookAtTheErrorCodeOfTheRelay) {
  AnswerCredentials();
  host.AnswerInvocation(0, [](ZelContainer& values) { values.SetInt32("ErrorCode", 1, kNoIndex); });

  EXPECT_EQ(Restore(request_), Restored("N"));
}

TEST_F(RestoreBackupFromRelay, AnswersAnEmptyNameWhenTheRelayGivesNone) {
  for (const bool isNumber : {false, true}) {
    AnswerCredentials();
    host.AnswerInvocation(0, [=](ZelContainer& values) {
      values.Clear();
      if (isNumber) values.SetInt32("Name", 7, kNoIndex);
    });

    EXPECT_EQ(Restore(request_), Restored(""));
  }
}

TEST_F(RestoreBackupFromRelay, KeepsTheParametersWhenTheRelayCannotBeInvoked) {
  for (const uint32_t code : {1U, 12U, kInvokeUnreachable}) {
    host.ForgetTranscript();
    AnswerCredentials();
    host.AnswerInvocation(code, [](ZelContainer& values) { values.Clear(); });
    ZelContainer expected = request_;
    expected.SetInt32("ErrorCode", 1, kNoIndex);

    EXPECT_EQ(Restore(request_), (Outcome{kFailure, Describe(expected)}));

    EXPECT_EQ(host.Transcript(),
              Join({Invocation(),
                    {"Error \"Failed to call action CoreUtilsRestoreBackup on relay "
                     "relay.example\""}}));
  }
}

TEST_F(RestoreBackupFromRelay, InvokesTheRelayWithoutParametersToo) {
  AnswerCredentials();
  host.AnswerInvocation(0);

  EXPECT_EQ(Restore({}), Restored(""));

  EXPECT_EQ(host.Transcript(), Invocation("http://agent7:pw@:0", "{}"));
}

TEST_F(RestoreBackupFromRelay, TakesParametersOfOtherTypesAsAbsent) {
  ZelContainer texts = Texts({{"HttpPort", "8080"}, {"Values", "x"}});
  texts.SetInt32("HostName", 1, kNoIndex);
  ZelContainer lists;
  lists.SetString("HostName", "relay.example", 0);
  lists.SetInt32("HttpPort", 8080, 0);
  lists.SetContainer("Values", Texts({{"Name", "N"}}), 0);
  for (const ZelContainer& params : {texts, lists}) {
    host.ForgetTranscript();
    AnswerCredentials();
    host.AnswerInvocation(0);

    EXPECT_EQ(Restore(params), Restored(""));

    EXPECT_EQ(host.Transcript(), Invocation("http://agent7:pw@:0", "{}"));
  }
}

TEST_F(RestoreBackupFromRelay, KeepsTheParametersUntilTheEnd) {
  for (const uint32_t code : {0U, 1U}) {
    AnswerCredentials();
    host.AnswerInvocation(code);
    ExpectKeysToStay(KeysAtEachCall("CoreUtilsRestoreBackupFromRelay", request_), 3);
  }
}

TEST_F(RestoreBackupFromRelay, TakesAPortOfAnySignAsUnsigned) {
  request_.SetInt32("HttpPort", -1, kNoIndex);
  AnswerCredentials();
  host.AnswerInvocation(0);

  EXPECT_EQ(Restore(request_).code, kSuccess);

  EXPECT_EQ(host.Transcript(), Invocation("http://agent7:pw@relay.example:4294967295"));
}

}  // namespace
