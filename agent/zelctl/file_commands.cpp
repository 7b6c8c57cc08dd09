#include "agent/zelctl/file_commands.h"

#include <cstdint>
#include <string_view>
#include <utility>
#include <vector>

#include "agent/zelctl/agent_actions.h"
#include "agent/zelctl/failure.h"
#include "agent/zelctl/text_output.h"
#include "libZel/string.h"

namespace {

ActionReply CallWithPath(AgentClient& agent, const char* action, const std::string& path) {
  return Invoke(agent, action, TextParameter("Path", path));
}

ActionReply CallWithTwoPaths(AgentClient& agent, const char* action, const std::string& source,
                             const std::string& destination) {
  ZelContainer parameters = TextParameter("SourcePath", source);
  parameters.SetString("DestinationPath", ZelString(std::string_view(destination)), kNoIndex);
  return Invoke(agent, action, parameters);
}

/// Deletes an existing directory and looks whether it is gone: the action itself does not tell.
Result DeleteDirectory(AgentClient& agent, const std::string& path) {
  const ActionReply reply = CallWithPath(agent, kDirDelete, path);
  RequireSuccess(kDirDelete, reply);
  if (ProbeDirectory(agent, path).code != kSuccess) return {"", reply.body, ""};
  throw Failure(ExitStatus::kActionFailed,
                std::string(kDirDelete) + ": not all of " + path + " could be deleted", reply.body);
}

std::string VisibleText(const ZelContainer& container, const char* key) {
  return EscapeForTerminal(TextOf(container, key));
}

std::string DriveTypeName(int32_t type) {
  switch (type) {
    case 2:
      return "removable";
    case 3:
      return "fixed";
    case 4:
      return "remote";
    case 5:
      return "CD-ROM";
    case 6:
      return "RAM disk";
    default:
      return "type " + std::to_string(type);
  }
}

std::string FormatDirectory(const std::string& path, uint32_t entries) {
  return "Path: " + EscapeForTerminal(path) +
         "\nType: directory\nEntries: " + std::to_string(entries) + "\n";
}

}  // namespace

Result Copy(AgentClient& agent, const std::string& source, const std::string& destination) {
  return Finish(kCopyFile, CallWithTwoPaths(agent, kCopyFile, source, destination));
}

Result Move(AgentClient& agent, const std::string& source, const std::string& destination) {
  const ActionReply asFile = CallWithTwoPaths(agent, kRenameFile, source, destination);
  if (asFile.code != kFileNotFound) return Finish(kRenameFile, asFile);

  const ActionReply asDirectory = CallWithTwoPaths(agent, kDirRename, source, destination);
  if (asDirectory.code == kSuccess) return {"", asDirectory.body, ""};
  // A directory that is there but could not be renamed must not be called missing.
  const bool isDirectory =
      asDirectory.code == kAccessRefused || ProbeDirectory(agent, source).code == kSuccess;
  if (isDirectory) throw ActionFailure(kDirRename, asDirectory);
  throw ActionFailure(kRenameFile, asFile);
}

Result Remove(AgentClient& agent, const std::string& path, bool recursive) {
  const ActionReply asFile = CallWithPath(agent, kDeleteFile, path);
  if (asFile.code != kFileNotFound) return Finish(kDeleteFile, asFile);

  const ActionReply probe = ProbeDirectory(agent, path);
  if (probe.code == kAccessRefused) throw ActionFailure(kGetDirList, probe);
  if (probe.code != kSuccess) throw ActionFailure(kDeleteFile, asFile);
  if (!recursive) {
    throw Failure(ExitStatus::kActionFailed, path + ": is a directory; use rm -r", asFile.body);
  }
  return DeleteDirectory(agent, path);
}

Result ShowFile(AgentClient& agent, const std::string& path) {
  const ActionReply asFile = CallWithPath(agent, kGetFileInformation, path);
  if (asFile.code != kFileNotFound) {
    RequireSuccess(kGetFileInformation, asFile);
    RequireUnsigned(kGetFileInformation, asFile, "FileSize");
    return {FormatFileInformation(path, asFile.container), asFile.body, ""};
  }

  const ActionReply probe = ProbeDirectory(agent, path);
  if (probe.code == kAccessRefused) throw ActionFailure(kGetDirList, probe);
  if (probe.code != kSuccess) throw ActionFailure(kGetFileInformation, asFile);
  return {FormatDirectory(path, RequireUnsigned(kGetDirList, probe, "Total")), probe.body, ""};
}

Result ShowDigest(AgentClient& agent, const std::string& path) {
  const ActionReply reply = Invoke(agent, kFileMd5, TextParameter("FilePath", path));
  RequireSuccess(kFileMd5, reply);
  const std::string digest = RequireText(kFileMd5, reply, "FileChecksum");
  if (digest.empty()) {
    throw Failure(ExitStatus::kActionFailed, path + ": cannot be read", reply.body);
  }
  return {EscapeForTerminal(digest) + "  " + EscapeForTerminal(path) + "\n", reply.body, ""};
}

Result MakeDirectory(AgentClient& agent, const std::string& path) {
  return Finish(kDirCreate, CallWithPath(agent, kDirCreate, path));
}

Result RemoveTree(AgentClient& agent, const std::string& path) {
  const ActionReply probe = ProbeDirectory(agent, path);
  if (probe.code == kAccessRefused) throw ActionFailure(kGetDirList, probe);
  if (probe.code != kSuccess) {
    throw Failure(ExitStatus::kActionFailed, path + ": there is no such directory", probe.body);
  }
  return DeleteDirectory(agent, path);
}

Result ListVolumes(AgentClient& agent) {
  const ActionReply reply = Invoke(agent, kGetFileSystems, ZelContainer());
  RequireSuccess(kGetFileSystems, reply);
  return {FormatVolumes(reply.container), reply.body, ""};
}

std::string FormatFileInformation(const std::string& path, const ZelContainer& information) {
  uint32_t sizeBytes = 0;
  information.GetInt32("FileSize", &sizeBytes, kNoIndex);
  bool isText = false;
  information.GetBool("IsText", &isText, kNoIndex);
  const std::string checksum = VisibleText(information, "FileChecksum");

  std::string text = "Path: " + EscapeForTerminal(path) + "\nSize: " + FormatSize(sizeBytes) +
                     "\nMD5: " + (checksum.empty() ? "cannot be read" : checksum) + "\n";
  const auto addText = [&](const char* label, const char* key) {
    const std::string value = VisibleText(information, key);
    if (!value.empty()) text.append(label).append(": ").append(value).append("\n");
  };
  addText("Original name", "OriginalFileName");
  addText("Version", "FileVersion");
  addText("Application", "ApplicationName");
  return text + "Text: " + (isText ? "yes" : "no") + "\n";
}

std::string FormatVolumes(const ZelContainer& volumes) {
  std::vector<std::vector<std::string>> rows;
  ZelContainer row;
  for (uint32_t i = 0; volumes.GetContainer("Values", &row, i); ++i) {
    ZelString name;
    ZelString label;
    int32_t type = 0;
    row.GetString("Name", &name, kNoIndex);
    row.GetString("VolumeName", &label, kNoIndex);
    row.GetInt32("DriveType", &type, kNoIndex);
    rows.push_back({std::string(name.Utf8()), DriveTypeName(type), std::string(label.Utf8())});
  }
  return rows.empty() ? "" : FormatTable({"NAME", "TYPE", "LABEL"}, rows);
}
