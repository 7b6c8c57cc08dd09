#include "actions/relay/newest_backup.h"

#include <cstdint>
#include <memory>
#include <optional>

#include "actions/relay/backup_rank.h"
#include "module/module.h"

namespace {

struct CloseOpenDirectory {
  void operator()(DIR* directory) const { CloseDirectory(directory); }
};
using OpenedDirectory = std::unique_ptr<DIR, CloseOpenDirectory>;

}  // namespace

ZelString FindNewestBackup(const ZelString& directory, const ZelString& name) {
  const OpenedDirectory opened(OpenDirectory(directory));
  if (!opened) {
    Logger().DetailWithNL("Directory access error !");
    return {};
  }
  const dirent* entry = ReadDirectory(opened.get());
  if (!entry) {
    Logger().DetailWithNL("File access error !");
    return {};
  }

  ZelString newest;
  uint32_t newestRank = 0;
  for (; entry; entry = ReadDirectory(opened.get())) {
    ZelString entryName;
    entryName.SetToTCHAR(entry->name);
    const std::optional<uint32_t> rank = RankOfBackup(entryName, name);
    if (!rank || *rank < newestRank) continue;
    newestRank = *rank;
    newest = entryName;
  }
  return newest;
}
