#include "actions/relay/backup_restore.h"

#include "actions/relay/agent_transfer.h"
#include "actions/relay/newest_backup.h"
#include "module/invocation.h"
#include "module/module.h"

namespace {

constexpr const char* kExtension = ".zip";
constexpr int kCompressionLevel = 6;

struct Request {
  ZelString sourcePath;
  ZelString destinationPath;
  ZelString name;
  bool wantsNewest = false;
  ZelString host;
  uint32_t port = 0;
};

/// The file to be sent, and what it is called where it goes.
struct Backup {
  ZelString fileName;
  ZelString path;
  /// It goes after it was sent: made here, or found beside a directory of its name.
  bool isDeletedAfterwards = false;
};

Request ReadRequest(const ZelContainer& params) {
  Request request;
  request.sourcePath = ReadString(params, "SourcePath");
  request.destinationPath = ReadString(params, "DestinationPath");
  request.name = ReadString(params, "Name");
  request.wantsNewest = ReadBool(params, "Last");
  request.host = ReadString(params, "HostName");
  params.GetInt32("HttpPort", &request.port, kNoIndex);
  return request;
}

void Normalise(ZelString* directory) {
  UseForwardSlashes(directory);
  EndWithSlash(directory);
}

void Pack(const ZelString& directory, const ZelString& archivePath) {
  GenericArchive archive(archivePath, kArchiveZip);
  archive.AddDirectory(directory, 1, 0, "", "", kCompressionLevel, nullptr);
}

/// False when there is no archive and none could be made.
bool FindArchive(const ZelString& sourcePath, const ZelString& choice, Backup* backup) {
  backup->fileName = choice;
  backup->path.Printf("%S%S", sourcePath, choice);
  if (choice.EndsWith(kExtension, true)) return true;
  backup->isDeletedAfterwards = true;
  // Without a choice the directory itself is offered; the transfer fails and says so.
  if (choice.IsEmpty()) return true;

  const ZelString directory = backup->path;
  backup->path.Printf("%S%S.zip", sourcePath, choice);
  if (!FileExists(backup->path)) Pack(directory, backup->path);
  if (!FileExists(backup->path)) {
    Logger().ErrorWithNL("Failed to find the zip file to restore: %S", backup->path);
    return false;
  }
  backup->fileName.Append(kExtension);
  return true;
}

ZelString UrlOf(const Sender& sender, const ZelString& host, uint32_t port) {
  ZelString url;
  return url.Printf("http://%S:%S@%S:%u", sender.name, sender.password, host, port);
}

void SetAlias(const ZelString& aliasName, ZelContainer* alias) {
  alias->SetString("ServerName", "BackupRestore", kNoIndex);
  alias->SetString("AliasName", aliasName, kNoIndex);
}

bool AddAlias(const ZelString& url, const ZelString& aliasName, const ZelString& path) {
  ZelContainer alias;
  SetAlias(aliasName, &alias);
  alias.SetString("AliasPath", path, kNoIndex);
  alias.SetBool("AliasTemporary", false, kNoIndex);
  if (InvokeAt(nullptr, url, "HttpProtocolAddAlias", &alias) == 0) return true;
  Logger().ErrorWithNL("Failed to add alias %S", aliasName);
  return false;
}

void DeleteAlias(const ZelString& url, const ZelString& aliasName) {
  Logger().PrintWithNL("Deleting alias %S", aliasName);
  ZelContainer alias;
  SetAlias(aliasName, &alias);
  alias.SetBool("AliasTemporary", false, kNoIndex);
  if (InvokeAt(nullptr, url, "HttpProtocolDeleteAlias", &alias) != 0)
    Logger().ErrorWithNL("Failed to delete alias %S", aliasName);
}

void Send(const Backup& backup, const Sender& sender, const Request& request,
          const ZelString& aliasName) {
  TransferClient client(sender.name, sender.password);
  Logger().PrintWithNL("Sender is '%S'", sender.endpoint);

  ZelString resource;
  resource.Printf("/%S/%S", aliasName, backup.fileName);
  HttpFileMessage upload = MakeUpload(backup.path, resource);
  Logger().PrintWithNL("copying file %S from relay %S, %S", backup.path, sender.ipAddress,
                       resource);
  const int error = client.Send(nullptr, request.host, upload, request.port);
  if (error != 0) {
    Logger().WarningWithNL("Error %d: Failed to copy file %S from relay %S, %S", error, backup.path,
                           request.host, resource);
  }
}

ResultCode Finish(ZelContainer* params, ResultCode code) {
  params->SetInt32(kErrorCode, static_cast<int32_t>(code), kNoIndex);
  return code;
}

}  // namespace

ResultCode CoreUtilsRestoreBackupFromRelay(ZelContainer* params) {
  const ZelString host = ReadString(*params, "HostName");
  uint32_t port = 0;
  params->GetInt32("HttpPort", &port, kNoIndex);
  ZelContainer values;
  params->GetContainer(kValues, &values, kNoIndex);

  Sender sender;
  ReadCredentials(&sender);
  if (InvokeAt(nullptr, UrlOf(sender, host, port), "CoreUtilsRestoreBackup", &values) != 0) {
    Logger().ErrorWithNL("Failed to call action CoreUtilsRestoreBackup on relay %S", host);
    return Finish(params, kFailure);
  }

  const ZelString name = ReadString(values, "Name");
  params->Clear();
  params->SetString("Name", name, kNoIndex);
  return Finish(params, kSuccess);
}

ResultCode CoreUtilsRestoreBackup(ZelContainer* params) {
  Request request = ReadRequest(*params);

  const ZelString choice =
      request.wantsNewest ? FindNewestBackup(request.sourcePath, request.name) : request.name;

  Normalise(&request.sourcePath);
  Normalise(&request.destinationPath);
  Backup backup;
  // The container keeps its parameters then, and tells no error code.
  if (!FindArchive(request.sourcePath, choice, &backup)) return kFailure;

  Sender sender;
  ReadEndpoint(&sender);
  ReadCredentials(&sender);
  const ZelString url = UrlOf(sender, request.host, request.port);
  UrlParseInet parsedUrl;
  parsedUrl.LoadUrl(url);

  const ZelString aliasName = MakeAliasName();
  if (!AddAlias(url, aliasName, request.destinationPath)) return Finish(params, kFailure);

  Send(backup, sender, request, aliasName);
  DeleteAlias(url, aliasName);
  if (backup.isDeletedAfterwards) FileDelete(backup.path, 0);

  ZelString name;
  name.Printf("%S%S", request.destinationPath, backup.fileName);
  params->Clear();
  params->SetString("Name", name, kNoIndex);
  return Finish(params, kSuccess);
}
