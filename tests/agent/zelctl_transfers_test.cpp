#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <future>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "agent/zelctl/agent_client.h"
#include "agent/zelctl/backup_commands.h"
#include "agent/zelctl/listing_output.h"
#include "agent/zelctl/relay_commands.h"
#include "agent/zelctl/transfer_progress.h"
#include "tests/agent/zelctl_agent.h"

namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

constexpr char kRelay[] =
    R"({"code":0,"container":{"Values":{"ParentName":"relay.test","ParentPort":7461,"ParentGuid":"g-1"}}})";
constexpr char kAddress[] = R"({"code":0,"container":{"IPAddress":"10.0.0.5"}})";
constexpr char kParams[] =
    R"({"code":0,"container":{"Values":{"Port":7460,"Address":"0.0.0.0","Ssl":false}}})";

std::string Work(int id, const std::string& kind, const std::string& name,
                 const std::string& failure, bool isRunning = false) {
  return R"({"Id":)" + std::to_string(id) + R"(,"Kind":")" + kind + R"(","Name":")" + name +
         R"(","DoneBytes":512,"TotalBytes":1024,"ElapsedMs":1000,"Running":)" +
         (isRunning ? "true" : "false") + R"(,"Failure":")" + failure + R"("})";
}

std::string WorkReply(const std::vector<std::string>& rows) {
  std::string list;
  for (const std::string& row : rows) list += (list.empty() ? "" : ",") + row;
  return R"({"code":0,"container":{"Values":[)" + list + "]}}";
}

/// An agent that answers each action with the reply set for it, else with success and nothing. Its
/// account of work grows with the first call of a module's action.
class ZelctlTransfers : public testing::Test {
 protected:
  ZelctlTransfers()
      : server_([this](const TestHttpRequest& request) {
          const std::string action = request.target.substr(std::string("/v1/actions/").size());
          const std::lock_guard lock(mutex_);
          if (action == "AgentGetProgress") return TestHttpAnswer{200, {}, WorkReply(work_), 0};
          actions_.push_back(action);
          bodies_.push_back(request.body);
          if (action.starts_with("CoreUtils")) {
            work_.insert(work_.end(), newWork_.begin(), newWork_.end());
            newWork_.clear();
          }
          const auto reply = replies_.find(action);
          return TestHttpAnswer{200, {}, reply == replies_.end() ? kGood : reply->second, 0};
        }),
        client_({server_.Url(""), "admin", "secret", ""}) {
    replies_["RelayGetValues"] = kRelay;
    replies_["AgentGetIPAddress"] = kAddress;
    replies_["HttpProtocolGetParams"] = kParams;
    replies_["CoreUtilsRestoreBackupFromRelay"] =
        R"({"code":0,"container":{"Name":"/here/data_20240131.zip","ErrorCode":0}})";
  }

  std::mutex mutex_;
  std::vector<std::string> actions_;
  std::vector<std::string> bodies_;
  std::vector<std::string> work_ = {Work(7, "send", "/x/a.zip", "an old failure")};
  std::vector<std::string> newWork_;
  std::map<std::string, std::string> replies_;

  TestHttpServer server_;
  AgentClient client_;
};

TEST_F(ZelctlTransfers, TellsWhereRelayAndAgentAre) {
  const Result result = ShowRelay(client_);
  EXPECT_EQ(result.text,
            "Relay: relay.test:7461\nRelay's identity: g-1\nThis agent: 10.0.0.5:7460\n");
  EXPECT_EQ(result.json, kRelay);
  EXPECT_EQ(result.problem, "");
}

TEST_F(ZelctlTransfers, TellsThatThereIsNoRelay) {
  replies_["RelayGetValues"] = kFailed;
  const Result result = ShowRelay(client_);
  EXPECT_EQ(result.text, "This agent: 10.0.0.5:7460\n");
  EXPECT_EQ(result.json, kFailed);
  EXPECT_EQ(result.problem, "no relay is configured");
}

TEST_F(ZelctlTransfers, ShowsAliasesAsATable) {
  const std::string reply =
      R"({"code":0,"container":{"Values":[)"
      R"({"AliasName":"backup1","AliasPath":"/in/","Owner":"agent/a","ServerName":"s",)"
      R"("AliasTemporary":false,"Uploads":2,"SilentMs":12999,"ExpiresInMs":200000},)"
      R"({"AliasName":"b","AliasPath":"/","Owner":"","ServerName":"","AliasTemporary":false,)"
      R"("Uploads":0,"SilentMs":7500000,"ExpiresInMs":-1}]}})";
  replies_["HttpProtocolListAliases"] = reply;
  const Result result = ListAliases(client_);
  EXPECT_EQ(result.text,
            "ALIAS    DIRECTORY  OWNER    UPLOADS  SILENT     EXPIRES IN\n"
            "backup1  /in/       agent/a  2        12 s       3 min 20 s\n"
            "b        /                   0        2 h 5 min  -\n");
  EXPECT_EQ(result.json, reply);
  replies_["HttpProtocolListAliases"] = kGood;
  EXPECT_EQ(ListAliases(client_).text, "");
}

TEST_F(ZelctlTransfers, PutsAFileOnTheRelay) {
  newWork_ = {Work(8, "send", "/x/a.zip", "")};
  const Result result = PutOnRelay(client_, {"/x/a.zip", "/in/a.zip", true});
  EXPECT_EQ(result.text, "");
  EXPECT_EQ(result.json, kGood);
  EXPECT_THAT(actions_, ElementsAre("CoreUtilsCopyFileToRelay"));
  EXPECT_THAT(
      bodies_,
      ElementsAre(
          R"({"SourcePath":"/x/a.zip","DestinationPath":"/in/a.zip","IsZippedFile":true})"));
}

TEST_F(ZelctlTransfers, TellsWhenTheUploadFailedThoughTheActionDidNot) {
  newWork_ = {Work(8, "send", "C:\\\\x\\\\a.zip", "the relay's disk is full"),
              Work(9, "send", "/x/other.zip", "")};
  const Failure failure = FailureOf([&] {
    PutOnRelay(client_, {"C:\\x\\a.zip", "/in/a.zip", false});
  });
  EXPECT_EQ(failure.Status(), ExitStatus::kActionFailed);
  EXPECT_STREQ(failure.what(), "the upload failed: the relay's disk is full");
  EXPECT_EQ(failure.Reply(), kGood);
}

TEST_F(ZelctlTransfers, TellsWhenThereWasNoUploadAtAll) {
  newWork_ = {Work(8, "receive", "/x/a.zip", "")};
  const auto put = [&] { PutOnRelay(client_, {"/x/a.zip", "/in/a.zip", false}); };
  EXPECT_STREQ(FailureOf(put).what(),
               "the upload failed: nothing was sent; the agent's log says why");
  replies_["CoreUtilsCopyFileToRelay"] = kFailed;
  const Failure failure = FailureOf(put);
  EXPECT_EQ(failure.Status(), ExitStatus::kActionFailed);
  EXPECT_THAT(failure.what(), StartsWith("nothing was sent: no relay is configured, or"));
  EXPECT_THAT(failure.what(), EndsWith("(CoreUtilsCopyFileToRelay: code 1: failure)"));
}

TEST_F(ZelctlTransfers, TellsWhenTheRelayCouldNotUnpack) {
  replies_["CoreUtilsCopyFileToRelay"] = kFailed;
  newWork_ = {Work(8, "send", "/x/a.zip", "")};
  const Failure failure = FailureOf([&] { PutOnRelay(client_, {"/x/a.zip", "/in/a.zip", true}); });
  EXPECT_THAT(failure.what(), StartsWith("/x/a.zip was sent, but the relay could not unpack it"));
}

TEST_F(ZelctlTransfers, TellsOtherCodesAsTheyAre) {
  replies_["CoreUtilsCopyFileToRelay"] = R"({"code":12,"container":{}})";
  EXPECT_STREQ(FailureOf([&] {
                 PutOnRelay(client_, {"/x", "/y", false});
               }).what(),
               "CoreUtilsCopyFileToRelay: code 12: refused by the privacy check");
}

TEST_F(ZelctlTransfers, UnpacksAnArchive) {
  EXPECT_EQ(ExtractArchive(client_, {"/x/a.zip", "/out"}).json, kGood);
  EXPECT_THAT(bodies_, ElementsAre(R"({"FilePath":"/x/a.zip","DestinationPath":"/out"})"));
}

TEST_F(ZelctlTransfers, NamesTheArchiveThatCouldNotBeUnpacked) {
  replies_["CoreUtilsExtractFile"] = kFailed;
  const Failure failure = FailureOf([&] { ExtractArchive(client_, {"/x/a.zip", "/out"}); });
  EXPECT_EQ(failure.Status(), ExitStatus::kActionFailed);
  EXPECT_STREQ(failure.what(),
               "/x/a.zip: could not be unpacked wholly; the agent's log says why "
               "(CoreUtilsExtractFile: code 1: failure)");
}

TEST_F(ZelctlTransfers, RestoresABackupFromTheAgentsRelay) {
  newWork_ = {Work(8, "receive", "/here/data_20240131.zip", "")};
  BackupRestoreOptions options;
  options.name = "data";
  options.from = "/backups";
  options.to = "/here";
  options.newest = true;
  const Result result = RestoreBackup(client_, options);
  EXPECT_EQ(result.text, "/here/data_20240131.zip\n");
  EXPECT_EQ(result.json, replies_["CoreUtilsRestoreBackupFromRelay"]);
  EXPECT_EQ(bodies_.back(),
            R"({"HostName":"relay.test","HttpPort":7461,"Values":{"SourcePath":"/backups",)"
            R"("DestinationPath":"/here","Name":"data","Last":true,"HostName":"10.0.0.5",)"
            R"("HttpPort":7460}})");
}

TEST_F(ZelctlTransfers, RestoresABackupFromWhereItIsTold) {
  newWork_ = {Work(8, "receive", "/here/data_20240131.zip", "")};
  RestoreBackup(client_, {"data.ZIP", "/backups", "/here", "[::1]:80", false, "me.test", 81});
  EXPECT_THAT(actions_, ElementsAre("CoreUtilsRestoreBackupFromRelay"));
  EXPECT_THAT(bodies_.back(), StartsWith(R"({"HostName":"[::1]","HttpPort":80,"Values":)"));
  EXPECT_THAT(bodies_.back(), HasSubstr(R"("Last":false,"HostName":"me.test","HttpPort":81})"));
}

TEST_F(ZelctlTransfers, RestoresNothingThatTheRelayWouldTakeForADirectoryUnsaid) {
  for (const char* name : {"data", "data_20240131", "data_20240131.tar", "zip"}) {
    const Failure failure = FailureOf([&] {
      RestoreBackup(client_, {name, "/b", "/h", "", false, "", 0});
    });
    EXPECT_EQ(failure.Status(), ExitStatus::kUsage);
    EXPECT_THAT(
        failure.what(),
        AllOf(StartsWith("without .zip \"" + std::string(name) + "\" is a directory's name"),
              HasSubstr(std::string(name) + ".zip on the relay is deleted afterwards"),
              HasSubstr("--last, or --directory")));
  }
  EXPECT_THAT(actions_, IsEmpty()) << "the agent was asked";
}

TEST_F(ZelctlTransfers, RestoresADirectoryThatIsSaidToBeOne) {
  newWork_ = {Work(8, "receive", "/here/data_20240131.zip", "")};
  BackupRestoreOptions options;
  options.name = "data_20240131";
  options.isDirectory = true;
  RestoreBackup(client_, options);
  EXPECT_THAT(bodies_.back(), HasSubstr(R"("Name":"data_20240131","Last":false)"));
}

TEST_F(ZelctlTransfers, NeedsARelayForABackup) {
  replies_["RelayGetValues"] = kFailed;
  const Failure failure = FailureOf([&] {
    RestoreBackup(client_, {"data.zip", "/b", "/h", "", false, "", 0});
  });
  EXPECT_EQ(failure.Status(), ExitStatus::kUsage);
  EXPECT_STREQ(failure.what(), "no relay is configured: name one with --relay HOST:PORT");
  EXPECT_THAT(actions_, ElementsAre("RelayGetValues"));
}

TEST_F(ZelctlTransfers, TellsWhenTheBackupDidNotArrive) {
  const BackupRestoreOptions options{"data.zip", "/b", "/here", "", false, "", 0};
  const auto restore = [&] { RestoreBackup(client_, options); };
  newWork_ = {Work(8, "receive", "/here/other.zip", "")};
  Failure failure = FailureOf(restore);
  EXPECT_EQ(failure.Status(), ExitStatus::kActionFailed);
  EXPECT_STREQ(failure.what(), "the upload failed: nothing was received; the relay's log says why");

  newWork_ = {Work(9, "receive", "/here/data_20240131.zip", "the sender went away")};
  failure = FailureOf(restore);
  EXPECT_STREQ(failure.what(), "the upload failed: the sender went away");
  EXPECT_EQ(failure.Reply(), replies_["CoreUtilsRestoreBackupFromRelay"]);

  replies_["CoreUtilsRestoreBackupFromRelay"] = kFailed;
  EXPECT_THAT(FailureOf(restore).what(),
              StartsWith("the relay relay.test:7461 is not reached, refuses or has no such "));
}

TEST(ZelctlRelay, ReadsHostAndPort) {
  EXPECT_EQ(ParseEndpoint("a:1").host, "a");
  EXPECT_EQ(ParseEndpoint("[::1]:65535").port, 65535u);
  for (const char* text : {"", "a", "a:", ":1", "a:0", "a:65536", "a:-1", "a:1x", "a: 1"}) {
    EXPECT_EQ(FailureOf([&] { ParseEndpoint(text); }).Status(), ExitStatus::kUsage) << text;
  }
}

ListingRow Entry(const std::string& name, bool isDirectory, uint64_t sizeBytes = 0) {
  ListingRow row;
  row.name = name;
  row.isDirectory = isDirectory;
  row.sizeBytes = sizeBytes;
  return row;
}

std::vector<std::string> NamesOf(const std::vector<BackupRow>& rows, bool onlyNewest = false) {
  std::vector<std::string> names;
  for (const BackupRow& row : rows) {
    if (!onlyNewest || row.isNewest) names.push_back(row.name);
  }
  return names;
}

TEST(ZelctlBackups, AreDirectoriesAndArchivesOfTheName) {
  const std::vector<ListingRow> entries = {
      Entry("data_20240201.zip", false), Entry("data", true),
      Entry("data_20240131", true),      Entry("data.ZIP", false),
      Entry("data_20240131.txt", false), Entry("data_20240230", true),
      Entry("data_2024013", true),       Entry("mydata_20240131", true),
      Entry("data.zip", true),           Entry("data_19990101", true)};
  EXPECT_THAT(
      NamesOf(FindBackups(entries, "data")),
      ElementsAre("data", "data.ZIP", "data_20240131", "data_20240201.zip", "mydata_20240131"));
  EXPECT_THAT(NamesOf(FindBackups(entries, "data_20240201")), ElementsAre("data_20240201.zip"));
  EXPECT_THAT(FindBackups(entries, "none"), IsEmpty());
}

TEST(ZelctlBackups, WithoutANameAreArchivesAndDirectoriesWithADate) {
  const std::vector<ListingRow> entries = {Entry("b_20240131", true), Entry("plain", true),
                                           Entry("a.zip", false), Entry("_20240131", true),
                                           Entry("a_b_20230101.zip", false)};
  EXPECT_THAT(NamesOf(FindBackups(entries, "")),
              ElementsAre("a.zip", "a_b_20230101.zip", "b_20240131"));
}

TEST(ZelctlBackups, HaveANewestOfEachName) {
  const std::vector<ListingRow> entries = {Entry("a_20231231", true), Entry("a_20240101", true),
                                           Entry("a_20240101.zip", false), Entry("a.zip", false),
                                           Entry("b_20200101.zip", false)};
  EXPECT_THAT(NamesOf(FindBackups(entries, ""), true),
              ElementsAre("a_20240101", "a_20240101.zip", "b_20200101.zip"));
}

/// The newest of the backups called "db" among entries of which those whose name begins with "+"
/// are directories: when all are listed, and when those of "db" are.
using Newest = std::pair<std::vector<std::string>, std::vector<std::string>>;
Newest NewestOfDb(const std::vector<std::string>& names) {
  std::vector<ListingRow> entries;
  for (const std::string& name : names) {
    const bool isDirectory = name.starts_with('+');
    entries.push_back(Entry(name.substr(isDirectory), isDirectory));
  }
  std::vector<std::string> ofDb;
  for (const BackupRow& row : FindBackups(entries, "")) {
    if (row.isNewest && row.backup == "db") ofDb.push_back(row.name);
  }
  return {ofDb, NamesOf(FindBackups(entries, "db"), true)};
}
Newest Both(const std::string& name) {
  return {{name}, {name}};
}

TEST(ZelctlBackups, HaveTheNewestThatTheActionTakes) {
  // An extension in capitals hides the date from it.
  EXPECT_EQ(NewestOfDb({"db_20240101.zip", "db_20250101.ZIP"}), Both("db_20240101.zip"));
  EXPECT_EQ(NewestOfDb({"db_20250101.ZIP"}), (Newest{{}, {}}));
  // From 2106-02-08 on its ranks begin anew.
  EXPECT_EQ(NewestOfDb({"db_20240101.zip", "db_21060208.zip"}), Both("db_20240101.zip"));
  EXPECT_EQ(NewestOfDb({"db_20240101.zip", "db_21060207.zip"}), Both("db_21060207.zip"));
  // It looks at names alone.
  EXPECT_EQ(NewestOfDb({"db_20240101.zip", "+db_20250101.zip"}), Both("db_20250101.zip"));
  EXPECT_EQ(NewestOfDb({"db_20240101.zip", "db_20250101"}), Both("db_20250101"));
  // Not the 29th of another year's February: Wine takes it for one of March.
  EXPECT_EQ(NewestOfDb({"+db_20240101", "db_20240229.zip", "db_20250230.zip"}),
            Both("db_20240229.zip"));
}

TEST(ZelctlBackups, HaveNoNewestWhereTheActionTakesTheOneOfALongerName) {
  EXPECT_EQ(NewestOfDb({"db_20240101.zip", "old-db_20250101.zip"}),
            (Newest{{}, {"old-db_20250101.zip"}}));
  EXPECT_EQ(NewestOfDb({"db_20240101.zip", "old-db_20230101.zip"}), Both("db_20240101.zip"));
  EXPECT_EQ(NewestOfDb({"db_20240101.zip", "db_20230101 of 20250101"}).second,
            (std::vector<std::string>{"db_20230101 of 20250101"}));
}

TEST(ZelctlBackups, AreFoundByThePatternThatTheActionTakes) {
  const std::vector<ListingRow> entries = {Entry("web1_20240101.zip", false),
                                           Entry("web2_20230101.zip", false),
                                           Entry("mail_20250101.zip", false)};
  const std::vector<BackupRow> rows = FindBackups(entries, "web[0-9]");
  EXPECT_THAT(NamesOf(rows), ElementsAre("web1_20240101.zip", "web2_20230101.zip"));
  EXPECT_THAT(NamesOf(rows, true), ElementsAre("web1_20240101.zip"));
}

TEST_F(ZelctlTransfers, ShowsBackupsAsATable) {
  const std::string reply =
      R"({"code":0,"container":{"Values":[)"
      R"({"Name":"d_20240101.zip","IsDirectory":false,"Size":2048},)"
      R"({"Name":"d_20230101","IsDirectory":true},{"Name":"x","IsDirectory":false},)"
      R"({"Name":"d_20220101","IsDirectory":false,"Size":3}],"Total":4}})";
  replies_["CoreUtilsGetDirList"] = reply;
  const Result result = ListBackups(client_, "/b", "d");
  EXPECT_EQ(result.text,
            "NAME            DATE        KIND       SIZE     NOTE\n"
            "d_20220101      2022-01-01  file       3 B\n"
            "d_20230101      2023-01-01  directory  -\n"
            "d_20240101.zip  2024-01-01  archive    2.0 KiB  newest\n");
  EXPECT_EQ(result.json, reply);
  EXPECT_THAT(bodies_, ElementsAre(R"({"Path":"/b"})"));
  EXPECT_EQ(ListBackups(client_, "/b", "none").text, "");
}

TEST_F(ZelctlTransfers, TellsWhenADirectoryOfBackupsCannotBeOpened) {
  replies_["CoreUtilsGetDirList"] = kFailed;
  EXPECT_THAT(FailureOf([&] { ListBackups(client_, "/b", ""); }).what(),
              StartsWith("/b: cannot be opened"));
}

TEST(ZelctlProgress, IsOneLine) {
  WorkReport report{1, "send", "C:\\x\\a.zip", 512 * 1024, 1024 * 1024, 2000, true, ""};
  EXPECT_EQ(FormatProgress(report), "a.zip  [##########..........]  50%  512.0 KiB  256.0 KiB/s");
  report.totalBytes = 0;
  EXPECT_EQ(FormatProgress(report), "a.zip  512.0 KiB  256.0 KiB/s");
  report.elapsedMs = 0;
  EXPECT_EQ(FormatProgress(report), "a.zip  512.0 KiB");
  // A file can grow while it is sent.
  report.totalBytes = 1;
  EXPECT_THAT(FormatProgress(report), HasSubstr("[####################] 100%"));
}

TEST(ZelctlProgress, FitsOnALine) {
  const WorkReport report{
      1, "send", "/x/" + std::string(100, 'n') + "\x1b", 1ull << 50, 1ull << 60, 1, true, ""};
  EXPECT_LE(FormatProgress(report).size(), 79u);
  const WorkReport wide{1, "send", "/ü\x1b", 0, 0, 0, true, ""};
  EXPECT_EQ(FormatProgress(wide), "ü\\x1b  0 B");
}

TEST_F(ZelctlTransfers, DrawProgressAndTakeItAway) {
  work_ = {Work(7, "send", "/x/old.zip", "", true), Work(8, "receive", "/x/a.zip", "", true),
           Work(9, "send", "/x/a.zip", "", true)};
  std::vector<std::string> drawn;
  {
    std::mutex mutex;
    std::condition_variable isDrawn;
    const ProgressLine line(client_.Address(), {"send", "", 7},
                            [&](const std::string& text) {
                              const std::lock_guard lock(mutex);
                              drawn.push_back(text);
                              isDrawn.notify_one();
                            },
                            {std::chrono::milliseconds(1), std::chrono::milliseconds(1)});
    std::unique_lock lock(mutex);
    isDrawn.wait(lock, [&] { return drawn.size() >= 2; });
  }
  const std::string shown = "a.zip  [##########..........]  50%  512 B  512 B/s";
  ASSERT_GE(drawn.size(), 4u);
  EXPECT_EQ(drawn[0], "\r" + shown);
  EXPECT_EQ(drawn[1], "\r" + shown);
  EXPECT_EQ(drawn[drawn.size() - 2], "\r" + std::string(shown.size(), ' '));
  EXPECT_EQ(drawn.back(), "\r");
}

TEST_F(ZelctlTransfers, AskForProgressNoMoreOftenThanThePaceSays) {
  work_ = {Work(9, "send", "/x/a.zip", "", true)};
  std::promise<void> isDrawn;
  int count = 0;
  {
    const ProgressLine line(client_.Address(), {"send", "", 0},
                            [&](const std::string&) {
                              if (count++ == 0) isDrawn.set_value();
                            },
                            {std::chrono::milliseconds(1), std::chrono::hours(1)});
    isDrawn.get_future().wait();
  }
  EXPECT_EQ(count, 3) << "drawn once, then taken away";
}

TEST_F(ZelctlTransfers, DrawNothingOfOtherWork) {
  work_ = {Work(9, "send", "/x/other.zip", "", true), Work(10, "extract", "/x/a.zip", "", false)};
  EXPECT_FALSE(FindWork(client_, {"send", "a.zip", 0}));
  EXPECT_FALSE(FindWork(client_, {"send", "", 9}));
  EXPECT_EQ(FindWork(client_, {"send", "other.zip", 8})->id, 9);
  EXPECT_FALSE(FindEndedWork(client_, {"send", "other.zip", 8}));
  EXPECT_EQ(FindEndedWork(client_, {"extract", "a.zip", 8})->id, 10);
  EXPECT_EQ(LatestWork(client_), 10);
}

}  // namespace
