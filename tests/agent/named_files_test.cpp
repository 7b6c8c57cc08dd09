#include "agent/service/named_files.h"

#include <gmock/gmock.h>

#include "agent/libZel/native_path.h"
#include "tests/agent/temporary_directory.h"

namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(FilesOfDatabase, AreThoseThatAConnectionStringNamesByFullPaths) {
  const NamedFiles files = FilesOfDatabase(
      "host=db  passfile = /a/pass\tsslkey='/a/the key' sslcert=/a/cert\\ one sslmode=verify-full "
      "sslrootcert='/a/it\\'s' sslcrl=relative");
  EXPECT_THAT(files.secret, ElementsAre("/a/pass", "/a/the key"));
  EXPECT_THAT(files.trusted, ElementsAre("/a/cert one", "/a/it's"));
}

TEST(FilesOfDatabase, AreThoseThatAUrlNames) {
  const NamedFiles files = FilesOfDatabase(
      "postgresql://zel@db:5432/tasks?sslmode=require&sslrootcert=%2fetc%2Fa%20b.pem&passfile=/p");
  EXPECT_THAT(files.secret, ElementsAre("/p"));
  EXPECT_THAT(files.trusted, ElementsAre("/etc/a b.pem"));
  EXPECT_THAT(FilesOfDatabase("postgresql://db/sslkey=/a").secret, IsEmpty());
}

TEST(FilesOfDatabase, AreNoneOfAStringThatNamesNone) {
  for (const char* database :
       {"", "host", "host=", "passfile", "passfile=", "passfile=system", "passfile='", "=", "'",
        "\\", "a='b", "postgresql://", "postgresql://db?", "postgresql://db?&&=&passfile", "://?%",
        "postgresql://db?passfile=/p%zz", "postgresql://db?passfile=/p%2"}) {
    const NamedFiles files = FilesOfDatabase(database);
    EXPECT_THAT(files.secret, IsEmpty()) << database;
    EXPECT_THAT(files.trusted, IsEmpty()) << database;
  }
}

TEST(StartupScripts, AreNamedAsTheModuleFindsThem) {
  const TemporaryDirectory directory;
  const fs::path ini = directory.Native() / "ZelCoreUtils.ini";
  const fs::path scripts = directory.Native() / "scripts";
  const fs::path elsewhere = directory.Native() / "elsewhere.mlx";
  WriteFile(ini, "[Run]\nA = sub/a.mlx\nB = ../b.mlx\nC = " +
                     std::string(FromNativePath(elsewhere).Utf8()) +
                     "\n[Other]\nD = d.mlx\n[RunOnce]\nE = e.mlx\n; F = f.mlx\n");
  std::vector<fs::path> found;
  for (const fs::path& file : StartupScripts(ini, scripts))
    found.push_back(file.lexically_normal());
  EXPECT_THAT(found, ElementsAre(scripts / "e.mlx", scripts / "sub" / "a.mlx",
                                 directory.Native() / "b.mlx", elsewhere));
  EXPECT_THAT(StartupScripts(directory.Native() / "none.ini", scripts), IsEmpty());
}

}  // namespace
