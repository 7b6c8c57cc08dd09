#include "actions/relay/relay_upload.h"

#include "actions/relay/agent_transfer.h"
#include "libZelMarlin.h"
#include "module/invocation.h"
#include "module/module.h"

namespace {

struct Relay {
  ZelString host;
  int32_t port = 0;
  ZelString guid;
  /// "host:port".
  ZelString address;
  /// With this agent's credentials; always "http", whatever is spoken.
  ZelString url;
};

/// Where the file goes, as the parts of its path there.
struct Destination {
  ZelString directory;
  ZelString fileName;
  ZelString nameWithoutExtension;
};

Destination Split(const ZelString& path) {
  PathParser parser;
  parser.LoadPath(path);
  Destination destination;
  destination.directory = parser.GetDrive();
  destination.directory += parser.GetDir();
  destination.fileName = parser.GetFileName();
  destination.nameWithoutExtension = parser.GetFileNameWithoutExt();
  return destination;
}

/// What the agent does not tell stays empty, and 0.
Relay ReadRelay() {
  ZelContainer work;
  InvokeHere("RelayGetValues", &work);
  ZelContainer values;
  work.GetContainer(kValues, &values, kNoIndex);

  Relay relay;
  relay.host = ReadString(values, "ParentName");
  values.GetInt32("ParentPort", &relay.port, kNoIndex);
  relay.guid = ReadString(values, "ParentGuid");
  relay.address.Printf("%S:%d", relay.host, relay.port);
  return relay;
}

ZelContainer AliasParameters(const ZelString& name, const ZelString& path) {
  ZelContainer alias;
  alias.SetString("AliasName", name, kNoIndex);
  alias.SetString("AliasPath", path, kNoIndex);
  alias.SetBool("AliasTemporary", false, kNoIndex);
  return alias;
}

void Upload(const ZelString& sourcePath, const Sender& sender, const Relay& relay,
            const UrlParseInet& url, const ZelString& resource) {
  TransferClient client(url.GetUser(), url.GetPassword());
  Logger().PrintWithNL("Sender is '%S' and Receiver is '%S'", sender.endpoint, relay.address);

  HttpFileMessage upload = MakeUpload(sourcePath, resource);
  Logger().PrintWithNL("copying file %S to relay %S, %S", sourcePath, relay.host, resource);
  const int error = client.Send(&relay.guid, relay.host, upload, static_cast<uint32_t>(relay.port));
  if (error != 0) {
    Logger().WarningWithNL("Error %d: Failed to copy file %S to relay %S, %S", error, sourcePath,
                           relay.host, resource);
  }
}

ResultCode ExtractOnRelay(const Relay& relay, Destination destination) {
  EndWithSlash(&destination.directory);
  ZelString archive;
  archive.Printf("%S%S", destination.directory, destination.fileName);
  ZelString target;
  target.Printf("%S%S", destination.directory, destination.nameWithoutExtension);

  ZelContainer request;
  request.SetString("FilePath", archive, kNoIndex);
  request.SetString("DestinationPath", target, kNoIndex);
  if (InvokeAt(&relay.guid, relay.url, "CoreUtilsExtractFile", &request) == 0) return kSuccess;
  Logger().ErrorWithNL("Failed to extract '%S'.", archive);
  return kFailure;
}

ResultCode CopyToRelay(const ZelString& sourcePath, const ZelString& destinationPath,
                       bool isArchive) {
  Destination destination = Split(destinationPath);

  Relay relay = ReadRelay();
  Sender sender;
  ReadEndpoint(&sender);
  ReadCredentials(&sender);
  relay.url.Printf("http://%S:%S@%S", sender.name, sender.password, relay.address);
  UrlParseInet url;
  url.LoadUrl(relay.url);

  UseForwardSlashes(&destination.directory);
  const ZelString aliasName = MakeAliasName();
  ZelContainer alias = AliasParameters(aliasName, destination.directory);
  if (InvokeAt(&relay.guid, relay.url, "HttpProtocolAddAlias", &alias) != 0) {
    Logger().ErrorWithNL("Failed to add alias %S", aliasName);
    return kFailure;
  }

  // Whether the file arrived decides nothing: callers learn of it from the log, and from the
  // extraction.
  ZelString resource;
  resource.Printf("/%S/%S", aliasName, destination.fileName);
  Upload(sourcePath, sender, relay, url, resource);

  if (InvokeAt(&relay.guid, relay.url, "HttpProtocolDeleteAlias", &alias) != 0)
    Logger().ErrorWithNL("Failed to delete alias %S", aliasName);

  return isArchive ? ExtractOnRelay(relay, destination) : kSuccess;
}

}  // namespace

ResultCode CoreUtilsCopyFileToRelay(ZelContainer* params) {
  const ZelString sourcePath = ReadString(*params, "SourcePath");
  const ZelString destinationPath = ReadString(*params, "DestinationPath");
  const bool isArchive = ReadBool(*params, "IsZippedFile");

  const ResultCode code = CopyToRelay(sourcePath, destinationPath, isArchive);

  params->SetInt32(kErrorCode, static_cast<int32_t>(code), kNoIndex);
  return code;
}
