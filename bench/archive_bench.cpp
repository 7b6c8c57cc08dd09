// Packs a directory, or unpacks an archive as the action does:
//   archive_bench pack DIRECTORY ARCHIVE [LEVEL]
//   archive_bench extract ARCHIVE DIRECTORY

#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "libZel/archive.h"
#include "libZel/file.h"
#include "libZel/path.h"

namespace {

int Pack(const char* directory, const char* archivePath, int level) {
  int error = 0;
  {
    GenericArchive archive(archivePath, kArchiveZip);
    error = archive.AddDirectory(directory, 1, 0, "", "", level, nullptr);
  }
  return error == 0 && FileExists(archivePath) ? 0 : 1;
}

ZelString TargetOf(const ZelString& destination, const ZelString& entryPath) {
  ZelString directory;
  ZelString name;
  ZelString extension;
  SplitPath(entryPath, nullptr, &directory, &name, &extension);
  ZelString target = destination + "\\";
  if (!directory.IsEmpty()) target += directory + "\\";
  return target + name + extension;
}

int Extract(const char* archivePath, const char* destination) {
  GenericArchive archive(archivePath, kArchiveZip);
  const uint32_t count = archive.GetFileCount();
  int refused = 0;
  for (uint32_t index = 1; index <= count; ++index) {
    const ZelString target = TargetOf(destination, archive.GetEntryPath(index));
    archive.ExtractEntry(index, target);
    if (FileExists(target) == 0) ++refused;
  }
  if (refused > 0) std::fprintf(stderr, "%d entries did not come out\n", refused);
  return refused == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string_view verb = argc >= 4 ? argv[1] : "";
  if (verb == "pack") return Pack(argv[2], argv[3], argc > 4 ? std::atoi(argv[4]) : 6);
  if (verb == "extract") return Extract(argv[2], argv[3]);
  std::fputs(
      "usage: archive_bench pack DIRECTORY ARCHIVE [LEVEL]\n"
      "       archive_bench extract ARCHIVE DIRECTORY\n",
      stderr);
  return 2;
}
