#include "agent/zelctl/relay_commands.h"

#include <charconv>
#include <optional>
#include <string_view>
#include <vector>

#include "agent/libZel/network/port.h"
#include "agent/zelctl/agent_actions.h"
#include "agent/zelctl/failure.h"
#include "agent/zelctl/result_code.h"
#include "agent/zelctl/text_output.h"
#include "agent/zelctl/transfer_progress.h"
#include "libZel/string.h"

namespace {

constexpr int64_t kSecondsPerMinute = 60;
constexpr int64_t kSecondsPerHour = 3600;

ZelContainer ValuesOf(const ActionReply& reply) {
  ZelContainer values;
  reply.container.GetContainer("Values", &values, kNoIndex);
  return values;
}

Endpoint ReadEndpoint(const ZelContainer& values, const char* hostKey, const char* portKey) {
  Endpoint endpoint{TextOf(values, hostKey), 0};
  values.GetInt32(portKey, &endpoint.port, kNoIndex);
  return endpoint;
}

std::string FormatEndpoint(const Endpoint& endpoint) {
  return endpoint.host + ":" + std::to_string(endpoint.port);
}

/// "45 s", "3 min 20 s", "2 h 5 min".
std::string FormatDuration(const ZelContainer& row, const char* key) {
  int64_t ms = -1;
  if (!row.GetInt64(key, &ms, kNoIndex) || ms < 0) return "-";
  const int64_t seconds = ms / kMsPerSecond;
  const std::string minutes = std::to_string(seconds % kSecondsPerHour / kSecondsPerMinute);
  if (seconds >= kSecondsPerHour) {
    return std::to_string(seconds / kSecondsPerHour) + " h " + minutes + " min";
  }
  const std::string rest = std::to_string(seconds % kSecondsPerMinute) + " s";
  return seconds < kSecondsPerMinute ? rest : minutes + " min " + rest;
}

std::vector<std::string> CellsOfAlias(const ZelContainer& row) {
  int32_t uploads = 0;
  row.GetInt32("Uploads", &uploads, kNoIndex);
  return {TextOf(row, "AliasName"),
          TextOf(row, "AliasPath"),
          TextOf(row, "Owner"),
          std::to_string(uploads),
          FormatDuration(row, "SilentMs"),
          FormatDuration(row, "ExpiresInMs")};
}

std::string WtfOf(const std::string& argument) {
  return std::string(ZelString(std::string_view(argument)).Utf8());
}

}  // namespace

Endpoint ParseEndpoint(const std::string& text) {
  const size_t colon = text.rfind(':');
  Endpoint endpoint{text.substr(0, colon), 0};
  const char* const end = text.data() + text.size();
  const bool isWhole = colon != std::string::npos && colon > 0;
  const auto [stop, error] =
      std::from_chars(text.data() + (isWhole ? colon + 1 : text.size()), end, endpoint.port);
  if (isWhole && error == std::errc() && stop == end && endpoint.port > 0 &&
      endpoint.port <= kMaxPort) {
    return endpoint;
  }
  throw Failure(ExitStatus::kUsage, "'" + text + "' is not HOST:PORT");
}

Endpoint RequireRelay(AgentClient& agent) {
  const ActionReply reply = Invoke(agent, kRelayGetValues, ZelContainer());
  if (reply.code == kFailureCode) {
    throw Failure(ExitStatus::kUsage, "no relay is configured: name one with --relay HOST:PORT",
                  reply.body);
  }
  RequireSuccess(kRelayGetValues, reply);
  return ReadEndpoint(ValuesOf(reply), "ParentName", "ParentPort");
}

Endpoint AskForOwnEndpoint(AgentClient& agent) {
  const ActionReply address = Invoke(agent, kGetIpAddress, ZelContainer());
  RequireSuccess(kGetIpAddress, address);
  const ActionReply params = Invoke(agent, kHttpGetParams, ZelContainer());
  RequireSuccess(kHttpGetParams, params);
  Endpoint endpoint = ReadEndpoint(ValuesOf(params), "Address", "Port");
  endpoint.host = RequireText(kGetIpAddress, address, "IPAddress");
  return endpoint;
}

Result ShowRelay(AgentClient& agent) {
  const ActionReply reply = Invoke(agent, kRelayGetValues, ZelContainer());
  if (reply.code != kFailureCode) RequireSuccess(kRelayGetValues, reply);
  const bool hasRelay = reply.code == kSuccess;

  std::string text;
  if (hasRelay) {
    const ZelContainer values = ValuesOf(reply);
    const std::string identity = TextOf(values, "ParentGuid");
    text += "Relay: " +
            EscapeForTerminal(FormatEndpoint(ReadEndpoint(values, "ParentName", "ParentPort"))) +
            "\n";
    if (!identity.empty()) text += "Relay's identity: " + EscapeForTerminal(identity) + "\n";
  }
  text += "This agent: " + EscapeForTerminal(FormatEndpoint(AskForOwnEndpoint(agent))) + "\n";
  return {text, reply.body, hasRelay ? "" : "no relay is configured"};
}

Result ListAliases(AgentClient& agent) {
  const ActionReply reply = Invoke(agent, kHttpListAliases, ZelContainer());
  RequireSuccess(kHttpListAliases, reply);
  std::vector<std::vector<std::string>> rows;
  ZelContainer row;
  for (uint32_t i = 0; reply.container.GetContainer("Values", &row, i); ++i) {
    rows.push_back(CellsOfAlias(row));
  }
  if (rows.empty()) return {"", reply.body, ""};
  return {FormatTable({"ALIAS", "DIRECTORY", "OWNER", "UPLOADS", "SILENT", "EXPIRES IN"}, rows),
          reply.body, ""};
}

Result PutOnRelay(AgentClient& agent, const RelayPutOptions& options) {
  ZelContainer parameters = TextParameter("SourcePath", options.source);
  parameters.SetString("DestinationPath", ZelString(std::string_view(options.destination)),
                       kNoIndex);
  parameters.SetBool("IsZippedFile", options.unpack, kNoIndex);
  const WorkQuery query{"send", FileNameOf(WtfOf(options.source)), LatestWork(agent)};
  const ActionReply reply =
      InvokeWithProgress(agent, kCopyFileToRelay, parameters, query, options.showsProgress);
  if (reply.code != kFailureCode) RequireSuccess(kCopyFileToRelay, reply);

  const auto fail = [&](const std::string& message) {
    throw Failure(ExitStatus::kActionFailed, message, reply.body);
  };
  const std::string ending =
      " (" + std::string(kCopyFileToRelay) + ": " + DescribeCode(reply.code) + ")";
  const std::optional<WorkReport> upload = FindEndedWork(agent, query);
  if (upload && !upload->failure.empty()) fail("the upload failed: " + upload->failure);
  if (!upload && reply.code == kSuccess) {
    fail("the upload failed: nothing was sent; the agent's log says why");
  }
  if (!upload) {
    fail("nothing was sent: no relay is configured, or it is not reached or refuses; the agent's " +
         ("log says why" + ending));
  }
  if (reply.code != kSuccess) {
    fail(options.source + " was sent, but the relay could not unpack it; its log says why" +
         ending);
  }
  return {"", reply.body, ""};
}

Result ExtractArchive(AgentClient& agent, const ExtractOptions& options) {
  ZelContainer parameters = TextParameter("FilePath", options.archive);
  parameters.SetString("DestinationPath", ZelString(std::string_view(options.directory)), kNoIndex);
  const WorkQuery query{"extract", FileNameOf(WtfOf(options.archive)),
                        options.showsProgress ? LatestWork(agent) : 0};
  const ActionReply reply =
      InvokeWithProgress(agent, kExtractFile, parameters, query, options.showsProgress);
  if (reply.code != kFailureCode) return Finish(kExtractFile, reply);
  throw Failure(ExitStatus::kActionFailed,
                options.archive + ": could not be unpacked wholly; the agent's log says why (" +
                    kExtractFile + ": " + DescribeCode(reply.code) + ")",
                reply.body);
}
