#include "agent/libZelCore/settings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/agent/temporary_directory.h"

namespace {

namespace fs = std::filesystem;

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

std::vector<std::string> WarningsOf(const std::string& database, fs::perms permissions) {
  const TemporaryDirectory directory;
  const fs::path file = directory.Native() / "zelagent.ini";
  WriteFile(file, "[master]\ndatabase = " + database + "\n");
  fs::permissions(file, permissions);
  SettingsResult result = LoadSettings(file);
  EXPECT_THAT(result.errors, IsEmpty());
  EXPECT_EQ(result.settings.masterDatabase, database);
  return std::move(result.warnings);
}

constexpr fs::perms kOwner = fs::perms::owner_read | fs::perms::owner_write;

TEST(Settings, WarnOfADatabasesPasswordThatOthersMayReadWithoutNamingIt) {
  for (const char* database :
       {"host=db dbname=tasks password=s3cret", "host=db PassWord = s3cret",
        "postgresql://tasks:s3cret@db/tasks", "postgresql://db/tasks?password=s3cret"}) {
    EXPECT_THAT(WarningsOf(database, kOwner | fs::perms::group_read),
                ElementsAre(AllOf(HasSubstr("zelagent.ini can be read by other accounts"),
                                  Not(HasSubstr("s3cret")))))
        << database;
    EXPECT_THAT(WarningsOf(database, kOwner), IsEmpty()) << database;
  }
}

TEST(Settings, WarnOfNoDatabaseWithoutAPassword) {
  for (const char* database : {"", "tasks.db", "C:/tasks@here/tasks.db", "host=db dbname=tasks",
                               "postgresql://tasks@db:5432/tasks", "postgresql://db:5432/tasks"})
    EXPECT_THAT(WarningsOf(database, kOwner | fs::perms::others_read), IsEmpty()) << database;
}

}  // namespace
