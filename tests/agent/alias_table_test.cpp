#include "agent/libZelCore/alias_table.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "agent/libZelCore/canonical_path.h"
#include "tests/agent/temporary_directory.h"

namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using testing::HasSubstr;

constexpr milliseconds kSilence{1000};

class AliasTableTest : public testing::Test {
 protected:
  AliasTableTest() {
    for (const char* name : {"config", "data", "log"})
      fs::create_directories(root_.Native() / "home" / name);
    fs::create_directory(root_.Native() / "target");
  }

  static AliasTable::Alias Alias(const std::string& owner, const std::string& name,
                                 const ZelString& directory) {
    return {owner, name, directory, {}, false};
  }
  std::string Add(const std::string& owner, const std::string& name) {
    return table_.Add(Alias(owner, name, root_ / "target"));
  }
  std::string AddDirectory(const ZelString& directory) {
    return table_.Add(Alias("agent/a", "x", directory));
  }
  std::unique_ptr<AliasTable::Upload> Begin(const std::string& owner, const std::string& name) {
    problem_.clear();
    return table_.BeginUpload(owner, name, &problem_);
  }
  bool LeadsTo(const AliasTable::Upload& upload, const ZelString& name) const {
    return Canonical(upload.Directory()).path == Canonical(root_.Native(name)).path;
  }
  bool LeadsToTarget(const AliasTable::Upload& upload) const { return LeadsTo(upload, "target"); }
  void Pass(milliseconds time) { now_ += time; }

  TemporaryDirectory root_;
  AliasTable::Clock::time_point now_{};
  AliasTable table_{root_.Native() / "home",
                    root_.Native() / "home" / "data",
                    {{{}, "nothing"},
                     {root_.Native() / "keys" / "agent.pem", "certificate"},
                     {root_.Native() / "home" / "data" / "own" / "ca.pem", "authority"}},
                    kSilence,
                    [this] { return now_; }};
  std::string problem_;
};

TEST_F(AliasTableTest, LeadsUploadsToTheDirectoryUntilItIsDeleted) {
  EXPECT_EQ(Add("agent/a", "backup1"), "");
  const auto upload = Begin("agent/a", "backup1");
  ASSERT_TRUE(upload) << problem_;
  EXPECT_TRUE(LeadsToTarget(*upload));
  EXPECT_TRUE(table_.Delete("agent/a", "backup1"));
  EXPECT_FALSE(table_.Delete("agent/a", "backup1"));
  EXPECT_FALSE(Begin("agent/a", "backup1"));
  EXPECT_EQ(problem_, "there is no such alias");
}

TEST_F(AliasTableTest, KeepsTheAliasesOfOwnersApart) {
  fs::create_directory(root_.Native() / "other");
  EXPECT_EQ(Add("agent/a", "x"), "");
  EXPECT_EQ(table_.Add(Alias("agent/b", "x", root_ / "other")), "");
  EXPECT_TRUE(LeadsToTarget(*Begin("agent/a", "x")));
  EXPECT_FALSE(LeadsToTarget(*Begin("agent/b", "x")));
  EXPECT_FALSE(Begin("a", "x"));
  EXPECT_FALSE(Begin("", "x"));
  EXPECT_FALSE(table_.Delete("bob", "x"));
  EXPECT_TRUE(table_.Delete("agent/b", "x"));
  EXPECT_TRUE(Begin("agent/a", "x"));
}

TEST_F(AliasTableTest, CountsTheSameAliasOfTheSameOwner) {
  EXPECT_EQ(Add("agent/a", "x"), "");
  EXPECT_EQ(table_.Add(Alias("agent/a", "x", root_ / "target/../target/")), "");
  EXPECT_EQ(table_.List().size(), 1u);
  EXPECT_TRUE(table_.Delete("agent/a", "x"));
  EXPECT_TRUE(Begin("agent/a", "x"));
  EXPECT_TRUE(table_.Delete("agent/a", "x"));
  EXPECT_FALSE(Begin("agent/a", "x"));
}

TEST_F(AliasTableTest, RefusesANameThatLeadsElsewhereAlready) {
  EXPECT_EQ(Add("agent/a", "x"), "");
  EXPECT_THAT(table_.Add(Alias("agent/a", "x", root_ / "other")), HasSubstr("another directory"));
  EXPECT_TRUE(LeadsToTarget(*Begin("agent/a", "x")));
}

TEST_F(AliasTableTest, TakesPlainNamesOnly) {
  for (const char* name : {"a", "backup1700000000", "A-b_c.d", "v1.x", "1"})
    EXPECT_EQ(Add("agent/a", name), "") << name;
  EXPECT_EQ(Add("agent/a", std::string(64, 'a')), "");
  const std::string bad[] = {"",
                             ".",
                             "..",
                             ".x",
                             "a/b",
                             "../x",
                             "a\\b",
                             "%2e",
                             "a b",
                             "a\n",
                             "\u00e4",
                             "a:b",
                             "a?b",
                             std::string("a\0b", 3),
                             std::string(65, 'a'),
                             std::string(300, 'a')};
  for (const std::string& name : bad)
    EXPECT_THAT(Add("agent/a", name), HasSubstr("1 to 64 letters")) << name;
  EXPECT_THAT(Add("agent/a", "v1"), HasSubstr("the protocol's own"));
}

TEST_F(AliasTableTest, TakesFullPathsOfThisMachineOnly) {
  WriteFile(root_.Native() / "file", "");
  EXPECT_THAT(AddDirectory(""), HasSubstr("empty"));
  EXPECT_THAT(AddDirectory("backups"), HasSubstr("not a full one"));
  EXPECT_THAT(AddDirectory("./backups"), HasSubstr("not a full one"));
  EXPECT_THAT(AddDirectory("C:backups"), HasSubstr("not a full one"));
  EXPECT_THAT(AddDirectory("http://host/backups"), HasSubstr("URL"));
  EXPECT_THAT(AddDirectory(ZelString(std::string_view("/a\0b", 4))), HasSubstr("NUL"));
  EXPECT_THAT(AddDirectory(root_ / "file"), HasSubstr("no directory"));
  EXPECT_TRUE(table_.List().empty());
}

TEST_F(AliasTableTest, TakesADirectoryThatDoesNotExistYet) {
  EXPECT_EQ(AddDirectory(root_ / "new/newer"), "");
  ASSERT_TRUE(Begin("agent/a", "x")) << problem_;
  fs::create_directories(root_.Native() / "new" / "newer");
  const auto upload = Begin("agent/a", "x");
  ASSERT_TRUE(upload) << problem_;
  EXPECT_TRUE(LeadsTo(*upload, "new/newer"));
}

TEST_F(AliasTableTest, LeadsIntoNoDirectoryOfTheAgentButItsData) {
  for (const char* name : {"home", "home/", "home/config", "home/config/x", "home/log", "home/new",
                           "home/data/../config", "home/datax"})
    EXPECT_THAT(AddDirectory(root_ / name), HasSubstr("the agent's own")) << name;
  EXPECT_EQ(AddDirectory(root_ / "home/data"), "");
  EXPECT_EQ(table_.Add(Alias("agent/a", "y", root_ / "home/data/x")), "");
  EXPECT_EQ(table_.Add(Alias("agent/a", "z", root_ / "homes")), "");
}

TEST_F(AliasTableTest, LeadsToNoDirectoryOfAGuardedFile) {
  for (const char* name : {"keys", "keys/", "target/../keys"})
    EXPECT_EQ(AddDirectory(root_ / name), "the directory holds the agent's certificate") << name;
  EXPECT_THAT(AddDirectory(root_ / "home/data/own"), HasSubstr("authority"));
  fs::create_directory(root_.Native() / "keys");
  EXPECT_NE(AddDirectory(root_ / "keys"), "");
  EXPECT_EQ(AddDirectory(root_ / "keys/below"), "");
}

TEST_F(AliasTableTest, ExpiresWhenTheOwnerIsSilentForLonger) {
  EXPECT_EQ(Add("agent/a", "x"), "");
  Pass(kSilence);
  EXPECT_EQ(table_.List().size(), 1u);
  Pass(milliseconds(1));
  EXPECT_FALSE(Begin("agent/a", "x"));
  EXPECT_FALSE(table_.Delete("agent/a", "x"));
  EXPECT_TRUE(table_.List().empty());
}

TEST_F(AliasTableTest, KeepsAllAliasesOfAnOwnerThatIsHeard) {
  EXPECT_EQ(Add("agent/a", "x"), "");
  EXPECT_EQ(Add("agent/a", "y"), "");
  EXPECT_EQ(Add("agent/b", "z"), "");
  Pass(kSilence);
  table_.Hear("agent/a");
  Pass(kSilence);
  EXPECT_TRUE(Begin("agent/a", "x"));
  EXPECT_TRUE(Begin("agent/a", "y"));
  EXPECT_FALSE(Begin("agent/b", "z"));
  table_.Hear("agent/c");
  EXPECT_EQ(table_.List().size(), 2u);
}

TEST_F(AliasTableTest, IsNotRevivedByASignThatComesTooLate) {
  EXPECT_EQ(Add("agent/a", "x"), "");
  Pass(kSilence + milliseconds(1));
  table_.Hear("agent/a");
  EXPECT_FALSE(Begin("agent/a", "x"));
}

TEST_F(AliasTableTest, DoesNotExpireDuringAnUpload) {
  EXPECT_EQ(Add("agent/a", "x"), "");
  auto upload = Begin("agent/a", "x");
  Pass(100 * kSilence);
  ASSERT_EQ(table_.List().size(), 1u);
  EXPECT_EQ(table_.List()[0].uploads, 1u);
  EXPECT_EQ(table_.List()[0].expiresIn, kSilence);
  upload.reset();
  Pass(kSilence);
  EXPECT_EQ(table_.List().size(), 1u) << "the end of an upload is a sign of life";
  Pass(milliseconds(1));
  EXPECT_TRUE(table_.List().empty());
}

TEST_F(AliasTableTest, GoesWithItsFirstFileWhenItIsTemporary) {
  AliasTable::Alias alias = Alias("agent/a", "x", root_ / "target");
  alias.isTemporary = true;
  EXPECT_EQ(table_.Add(alias), "");
  Begin("agent/a", "x").reset();
  const auto second = Begin("agent/a", "x");
  ASSERT_TRUE(second) << "an upload that failed takes nothing away";
  second->Complete();
  EXPECT_FALSE(Begin("agent/a", "x"));
}

TEST_F(AliasTableTest, StaysWithItsFilesOtherwise) {
  EXPECT_EQ(Add("agent/a", "x"), "");
  Begin("agent/a", "x")->Complete();
  EXPECT_TRUE(Begin("agent/a", "x"));
}

TEST_F(AliasTableTest, LetsAnUploadEndAfterTheDeletion) {
  AliasTable::Alias alias = Alias("agent/a", "x", root_ / "target");
  alias.isTemporary = true;
  EXPECT_EQ(table_.Add(alias), "");
  const auto upload = Begin("agent/a", "x");
  EXPECT_TRUE(table_.Delete("agent/a", "x"));
  EXPECT_EQ(table_.Add(alias), "");
  upload->Complete();
  EXPECT_TRUE(Begin("agent/a", "x")) << "the new alias of that name is another one";
}

TEST_F(AliasTableTest, RefusesUploadsWhenThePathLeadsElsewhereSince) {
  EXPECT_EQ(AddDirectory(root_ / "later"), "");
  WriteFile(root_.Native() / "later", "");
  EXPECT_FALSE(Begin("agent/a", "x"));
  EXPECT_THAT(problem_, HasSubstr("no directory"));
  EXPECT_EQ(table_.List()[0].uploads, 0u);
}

TEST_F(AliasTableTest, IsListedByOwnerAndName) {
  EXPECT_EQ(Add("bob", "b"), "");
  EXPECT_EQ(Add("agent/a", "z"), "");
  AliasTable::Alias alias = Alias("bob", "a", root_ / "target");
  alias.serverName = "BackupRestore";
  alias.isTemporary = true;
  EXPECT_EQ(table_.Add(alias), "");
  Pass(milliseconds(300));
  const std::vector<AliasTable::Row> rows = table_.List();
  ASSERT_EQ(rows.size(), 3u);
  EXPECT_EQ(rows[0].alias.owner + " " + rows[0].alias.name, "agent/a z");
  EXPECT_EQ(rows[1].alias.owner + " " + rows[1].alias.name, "bob a");
  EXPECT_EQ(rows[2].alias.owner + " " + rows[2].alias.name, "bob b");
  EXPECT_EQ(rows[1].alias.serverName, "BackupRestore");
  EXPECT_EQ(rows[1].alias.directory, root_ / "target");
  EXPECT_TRUE(rows[1].alias.isTemporary);
  EXPECT_EQ(rows[1].silent, milliseconds(300));
  EXPECT_EQ(rows[1].expiresIn, milliseconds(700));
}

TEST_F(AliasTableTest, TakesSoManyAliasesAndNoMore) {
  for (int i = 0; i < 1024; ++i) ASSERT_EQ(Add("agent/a", "x" + std::to_string(i)), "");
  EXPECT_THAT(Add("agent/a", "y"), HasSubstr("1024 aliases already"));
  EXPECT_EQ(Add("agent/a", "x0"), "");
  EXPECT_TRUE(table_.Delete("agent/a", "x1"));
  EXPECT_EQ(Add("agent/a", "y"), "");
}

}  // namespace
