#include "agent/zelctl/remote_text.h"

#include <cstdlib>
#include <limits>
#include <memory>
#include <string_view>
#include <utility>

#include "agent/zelctl/agent_actions.h"
#include "agent/zelctl/failure.h"
#include "libZel/base64.h"
#include "libZel/string.h"

namespace {

constexpr std::string_view kUtf8Mark = "\xEF\xBB\xBF";
constexpr char kUnsupportedFormat[] = "Unsupported file format";
/// Far above what agents take; Base64 counts in 32 bits.
constexpr size_t kMostBytes = size_t{1} << 30;

struct Free {
  void operator()(char* memory) const { std::free(memory); }
};

void RequireSupportedFormat(const std::string& path, const ActionReply& reply) {
  ZelString result;
  reply.container.GetString("Result", &result, kNoIndex);
  if (reply.code != kFailureCode || result != kUnsupportedFormat) return;
  throw Failure(ExitStatus::kActionFailed,
                path + ": holds UTF-16 or UTF-32 text, which the agent neither reads nor writes",
                reply.body);
}

std::string DecodeText(const ActionReply& reply) {
  const std::string base64 = RequireText(kReadFile, reply, "Result");
  auto length = static_cast<uint32_t>(base64.size());
  const std::unique_ptr<char, Free> text(
      DecodeBase64(reinterpret_cast<const unsigned char*>(base64.data()), &length));
  if (text) return std::string(text.get(), length);
  throw Failure(ExitStatus::kAgentRefused, std::string(kReadFile) + ": the reply is not Base64",
                reply.body);
}

RemoteText ReadText(AgentClient& agent, const std::string& path, uint32_t sizeBytes) {
  ZelContainer parameters = TextParameter("Path", path);
  parameters.SetInt32("Length", static_cast<int32_t>(sizeBytes), kNoIndex);
  const ActionReply reply = Invoke(agent, kReadFile, parameters);
  RequireSupportedFormat(path, reply);
  RequireSuccess(kReadFile, reply);
  RemoteText read{DecodeText(reply), reply.body};
  // The agent answers with no text, too, when it could not read the file.
  if (read.text.empty() && sizeBytes > kUtf8Mark.size()) {
    throw Failure(ExitStatus::kActionFailed, path + ": cannot be read", reply.body);
  }
  return read;
}

}  // namespace

std::optional<RemoteText> ReadRemoteTextIfAny(AgentClient& agent, const std::string& path) {
  const ActionReply reply = Invoke(agent, kGetFileSize, TextParameter("Path", path));
  if (reply.code == kFileNotFound) {
    if (ProbeDirectory(agent, path).code != kSuccess) return std::nullopt;
    throw Failure(ExitStatus::kActionFailed, path + ": is a directory", reply.body);
  }
  RequireSuccess(kGetFileSize, reply);
  return ReadText(agent, path, RequireUnsigned(kGetFileSize, reply, "Result"));
}

RemoteText ReadRemoteText(AgentClient& agent, const std::string& path) {
  const ActionReply reply = Invoke(agent, kGetFileSize, TextParameter("Path", path));
  if (reply.code == kFileNotFound && ProbeDirectory(agent, path).code == kSuccess) {
    throw Failure(ExitStatus::kActionFailed, path + ": is a directory", reply.body);
  }
  RequireSuccess(kGetFileSize, reply);
  return ReadText(agent, path, RequireUnsigned(kGetFileSize, reply, "Result"));
}

ActionReply WriteRemoteText(AgentClient& agent, const std::string& path, const std::string& text) {
  ZelContainer parameters = TextParameter("Path", path);
  parameters.SetString("FileContent",
                       EncodeBase64(reinterpret_cast<const unsigned char*>(text.data()),
                                    static_cast<uint32_t>(text.size())),
                       kNoIndex);
  ActionReply reply = Invoke(agent, kWriteFile, parameters);
  RequireSupportedFormat(path, reply);
  RequireSuccess(kWriteFile, reply);
  return reply;
}

std::string RequireUtf8(std::string bytes, const std::string& source) {
  if (bytes.size() > kMostBytes) {
    throw Failure(ExitStatus::kUsage, source + " is too large to be sent");
  }
  if (!ZelString::IsTextUTF8(bytes.data(), static_cast<uint32_t>(bytes.size()))) {
    throw Failure(ExitStatus::kUsage, source + " is not UTF-8 text; nothing was sent");
  }
  if (bytes.starts_with(kUtf8Mark)) bytes.erase(0, kUtf8Mark.size());
  return bytes;
}
