#include "actions/files/file_operations.h"

#include "module/direct_access.h"
#include "module/module.h"

namespace {

constexpr const char* kPath = "Path";
constexpr const char* kSourcePath = "SourcePath";
constexpr const char* kDestinationPath = "DestinationPath";
constexpr const char* kRecursive = "Recursive";

ResultCode RefuseMissingFile(ZelContainer* params) {
  params->SetInt32(kResult, 0, kNoIndex);
  return kFileNotFound;
}

ResultCode RefuseAccess(ZelContainer* params) {
  params->SetBool(kResult, false, kNoIndex);
  return kAccessRefused;
}

/// The first of "name(1).ext", "name(2).ext", ... beside `path` that does not exist.
ZelString FreeNameBeside(const ZelString& path) {
  ZelString drive, directory, name, extension;
  SplitPath(path, &drive, &directory, &name, &extension);

  unsigned counter = 1;
  ZelString candidate;
  candidate.Printf("%S%S%S(%u)%S", drive, directory, name, counter, extension);
  while (FileExists(candidate)) {
    ++counter;
    candidate.Printf("%S%S%S(%u)%S", drive, directory, name, counter, extension);
  }
  return candidate;
}

ZelString ParentOf(const ZelString& path) {
  ZelString drive, directory;
  SplitPath(path, &drive, &directory, nullptr, nullptr);
  return drive + directory;
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): it works on a copy of its own.
void DeleteRecursively(ZelString path) {
  DirDelete(path, 1, 0);
}

}  // namespace

ResultCode CoreUtilsCopyFile(ZelContainer* params) {
  const ZelString source = ReadString(*params, kSourcePath);
  ZelString destination = ReadString(*params, kDestinationPath);
  const ZelString consoleUser = ReadString(*params, kDACurrentConsoleUser);
  params->Clear();
  Logger().DetailWithNL("Copying file %S to %S", source, destination);

  if (!FileExists(source)) return RefuseMissingFile(params);

  if (!MayRead(source, consoleUser) || !MayWrite(destination, consoleUser)) {
    return RefuseAccess(params);
  }

  if (source == destination && !UrlParseInet::CanHandleUrl(source)) {
    destination = FreeNameBeside(source);
  }

  return FileCopyNet(source, destination, 0) ? kFailure : kSuccess;
}

ResultCode CoreUtilsRenameFile(ZelContainer* params) {
  const ZelString source = ReadString(*params, kSourcePath);
  const ZelString destination = ReadString(*params, kDestinationPath);
  const ZelString consoleUser = ReadString(*params, kDACurrentConsoleUser);
  params->Clear();
  Logger().DetailWithNL("Renaming file %S to %S", source, destination);

  if (!FileExists(source)) return RefuseMissingFile(params);

  if (!MayRead(source, consoleUser) || !MayWrite(destination, consoleUser)) {
    return RefuseAccess(params);
  }

  return FileRenameNet(source, destination) ? kFailure : kSuccess;
}

ResultCode CoreUtilsDeleteFile(ZelContainer* params) {
  const ZelString path = ReadString(*params, kPath);
  const ZelString consoleUser = ReadString(*params, kDACurrentConsoleUser);
  params->Clear();
  Logger().DetailWithNL("Deleting file %S", path);

  if (!FileExists(path)) return RefuseMissingFile(params);

  if (!MayWrite(path, consoleUser)) return RefuseAccess(params);

  return FileDeleteNet(path, false) ? kFailure : kSuccess;
}

ResultCode CoreUtilsGetFileSize(ZelContainer* params) {
  const ZelString path = ReadString(*params, kPath);
  const ZelString consoleUser = ReadString(*params, kDACurrentConsoleUser);
  params->Clear();
  Logger().DetailWithNL("Get size for file %S", path);

  if (!FileExists(path)) return RefuseMissingFile(params);

  if (!MayRead(path, consoleUser)) {
    // Callers read `Result` as a number whatever the code, so a refusal is one too.
    params->SetInt32(kResult, 0, kNoIndex);
    return kAccessRefused;
  }

  params->SetInt32(kResult, static_cast<int32_t>(FileGetSize(path)), kNoIndex);
  return kSuccess;
}

ResultCode CoreUtilsDirCreate(ZelContainer* params) {
  ZelString path = ReadString(*params, kPath);
  const ZelString consoleUser = ReadString(*params, kDACurrentConsoleUser);
  params->Clear();
  path.ReplaceAll("\\", "/", false);
  Logger().DetailWithNL("Creating directory %S", path);

  if (DirExists(path)) return kSuccess;

  // The directory is not there yet: what changes is its parent.
  if (!MayWrite(ParentOf(path), consoleUser)) return kAccessRefused;

  return DirCreate(path) ? kSuccess : kFailure;
}

ResultCode CoreUtilsDirRename(ZelContainer* params) {
  const ZelString source = ReadString(*params, kSourcePath);
  const ZelString destination = ReadString(*params, kDestinationPath);
  const ZelString consoleUser = ReadString(*params, kDACurrentConsoleUser);
  params->Clear();
  Logger().DetailWithNL("Renaming directory %S to %S", source, destination);

  if (!MayRead(source, consoleUser) || !MayWrite(destination, consoleUser)) {
    return RefuseAccess(params);
  }

  // Consoles rely on the second call's answer; the host answers a repeated rename like the first.
  DirRename(source, destination);
  return DirRename(source, destination) ? kSuccess : kFailure;
}

ResultCode CoreUtilsDirDelete(ZelContainer* params) {
  const ZelString path = ReadString(*params, kPath);
  const bool isRecursive = ReadBool(*params, kRecursive);
  const ZelString consoleUser = ReadString(*params, kDACurrentConsoleUser);
  params->Clear();

  if (!MayWrite(path, consoleUser)) return RefuseAccess(params);

  // Both ways delete the content too: the flag is accepted and changes nothing.
  if (isRecursive) {
    DeleteRecursively(path);
  } else {
    DirDelete(path, 1, 0);
  }
  return kSuccess;
}
