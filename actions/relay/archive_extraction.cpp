#include "actions/relay/archive_extraction.h"

#include "module/module.h"

namespace {

/// Where an entry goes. The separator is "\" whatever the destination uses.
ZelString TargetOf(const ZelString& destination, const ZelString& entryPath) {
  ZelString directory;
  ZelString name;
  ZelString extension;
  SplitPath(entryPath, nullptr, &directory, &name, &extension);

  ZelString target = destination;
  target += "\\";
  if (directory.GetLength() > 0) {
    target += directory;
    target += "\\";
  }
  target += name;
  target += extension;
  return target;
}

/// False when an entry did not come out; the others have come out all the same.
bool ExtractAll(const ZelString& archivePath, const ZelString& destination) {
  GenericArchive archive(archivePath, kArchiveZip);
  bool allCameOut = true;
  for (uint32_t index = 1; index <= archive.GetFileCount(); ++index) {
    const ZelString target = TargetOf(destination, archive.GetEntryPath(index));
    archive.ExtractEntry(index, target);
    if (FileExists(target)) continue;
    Logger().ErrorWithNL("Error during extracting file: %S", target);
    allCameOut = false;
  }
  return allCameOut;
}

ResultCode Extract(const ZelString& archivePath, const ZelString& destination) {
  if (!FileExists(archivePath)) {
    Logger().ErrorWithNL("The file %S does not exists!", archivePath);
    return kFailure;
  }

  if (!DirExists(destination)) {
    if (!PathCreate(destination)) {
      Logger().ErrorWithNL("The destination path '%S' for the backup cannot be created!",
                           destination);
      return kFailure;
    }
    Logger().PrintWithNL("Destination path for the backup '%S' has been created.", destination);
  }

  if (!ExtractAll(archivePath, destination)) return kFailure;

  if (FileDelete(archivePath, 0) != 0)
    Logger().WarningWithNL("Failed to delete the file '%S'.", archivePath);
  return kSuccess;
}

}  // namespace

ResultCode CoreUtilsExtractFile(ZelContainer* params) {
  const ZelString archivePath = ReadString(*params, "FilePath");
  const ZelString destination = ReadString(*params, "DestinationPath");

  const ResultCode code = Extract(archivePath, destination);

  params->SetInt32(kErrorCode, static_cast<int32_t>(code), kNoIndex);
  return code;
}
