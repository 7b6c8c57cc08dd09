#include "agent/zelctl/backup_commands.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <map>
#include <string_view>
#include <tuple>

#include "agent/libZel/ascii.h"
#include "agent/zelctl/agent_actions.h"
#include "agent/zelctl/failure.h"
#include "agent/zelctl/relay_commands.h"
#include "agent/zelctl/result_code.h"
#include "agent/zelctl/text_output.h"
#include "agent/zelctl/transfer_progress.h"
#include "libZel/string.h"

namespace {

constexpr std::string_view kExtension = ".zip";
constexpr size_t kDateDigits = 8;
constexpr int kFirstYear = 2000;

ZelString Text(const std::string& argument) {
  return ZelString(std::string_view(argument));
}

bool IsArchiveName(std::string_view name) {
  return name.size() >= kExtension.size() &&
         EqualsIgnoringCase(name.substr(name.size() - kExtension.size()), kExtension);
}

int NumberIn(std::string_view digits) {
  int number = 0;
  std::from_chars(digits.data(), digits.data() + digits.size(), number);
  return number;
}

/// "YYYY-MM-DD" of eight digits; empty when the calendar has no such date.
std::string DateOf(std::string_view digits) {
  if (digits.size() != kDateDigits || digits.find_first_not_of("0123456789") != digits.npos) {
    return {};
  }
  const int year = NumberIn(digits.substr(0, 4));
  const int month = NumberIn(digits.substr(4, 2));
  const int day = NumberIn(digits.substr(6));
  const std::chrono::year_month_day date(std::chrono::year{year},
                                         std::chrono::month(static_cast<unsigned>(month)),
                                         std::chrono::day(static_cast<unsigned>(day)));
  if (year < kFirstYear || !date.ok()) return {};
  std::string text(digits);
  return text.insert(6, "-").insert(4, "-");
}

/// The name without an archive's extension.
std::string StemOf(const ListingRow& entry) {
  return entry.name.substr(0, entry.name.size() - (entry.isDirectory ? 0 : kExtension.size()));
}

BackupRow ReadRow(const ListingRow& entry) {
  BackupRow row;
  row.name = entry.name;
  row.isArchive = !entry.isDirectory;
  row.sizeBytes = entry.sizeBytes;
  row.backup = StemOf(entry);

  const size_t bar = row.backup.rfind('_');
  if (bar == std::string::npos || bar == 0) return row;
  row.date = DateOf(std::string_view(row.backup).substr(bar + 1));
  if (!row.date.empty()) row.backup.resize(bar);
  return row;
}

void MarkNewest(std::vector<BackupRow>* rows) {
  std::map<std::string, std::string> newest;
  for (const BackupRow& row : *rows) {
    std::string& date = newest[row.backup];
    date = std::max(date, row.date);
  }
  for (BackupRow& row : *rows) row.isNewest = !row.date.empty() && row.date == newest[row.backup];
}

/// The action takes such a name for a directory's and deletes NAME.zip there in the end, packed
/// just now or not.
void RequireDeletableArchive(const BackupRestoreOptions& options) {
  if (options.newest || options.isDirectory || IsArchiveName(options.name)) return;
  throw Failure(
      ExitStatus::kUsage,
      "without .zip \"" + options.name + "\" is a directory's name, and " + options.name +
          ".zip on the relay is deleted afterwards, be it the only copy: name the archive " +
          "with its .zip, or give --last, or --directory where there is such a directory");
}

Endpoint ReceiverOf(AgentClient& agent, const BackupRestoreOptions& options) {
  if (!options.host.empty() && options.port != 0) return {options.host, options.port};
  Endpoint receiver = AskForOwnEndpoint(agent);
  if (!options.host.empty()) receiver.host = options.host;
  if (options.port != 0) receiver.port = options.port;
  return receiver;
}

void SetEndpoint(const Endpoint& endpoint, ZelContainer* container) {
  container->SetString("HostName", Text(endpoint.host), kNoIndex);
  container->SetInt32("HttpPort", static_cast<int32_t>(endpoint.port), kNoIndex);
}

ZelContainer RestoreParameters(const Endpoint& relay, const Endpoint& receiver,
                               const BackupRestoreOptions& options) {
  ZelContainer values = TextParameter("SourcePath", options.from);
  values.SetString("DestinationPath", Text(options.to), kNoIndex);
  values.SetString("Name", Text(options.name), kNoIndex);
  values.SetBool("Last", options.newest, kNoIndex);
  SetEndpoint(receiver, &values);
  ZelContainer parameters;
  SetEndpoint(relay, &parameters);
  parameters.SetContainer("Values", values, kNoIndex);
  return parameters;
}

}  // namespace

std::vector<BackupRow> FindBackups(const std::vector<ListingRow>& entries,
                                   const std::string& name) {
  std::vector<BackupRow> rows;
  for (const ListingRow& entry : entries) {
    // A directory that is called like an archive is neither.
    if (entry.isDirectory == IsArchiveName(entry.name)) continue;
    BackupRow row = ReadRow(entry);
    const bool isWanted = name.empty() ? row.isArchive || !row.date.empty()
                                       : row.backup == name || StemOf(entry) == name;
    if (isWanted) rows.push_back(std::move(row));
  }
  MarkNewest(&rows);
  std::sort(rows.begin(), rows.end(), [](const BackupRow& a, const BackupRow& b) {
    return std::tie(a.backup, a.date, a.name) < std::tie(b.backup, b.date, b.name);
  });
  return rows;
}

Result ListBackups(AgentClient& agent, const std::string& directory, const std::string& name) {
  const ActionReply reply = Invoke(agent, kGetDirList, TextParameter("Path", directory));
  RequireListing(directory, reply);

  std::vector<std::vector<std::string>> cells;
  const std::string wanted(Text(name).Utf8());
  for (const BackupRow& row : FindBackups(ReadListingRows(reply.container), wanted)) {
    cells.push_back(
        {row.name, row.date.empty() ? "-" : row.date, row.isArchive ? "archive" : "directory",
         row.isArchive ? FormatShortSize(row.sizeBytes) : "-", row.isNewest ? "newest" : ""});
  }
  if (cells.empty()) return {"", reply.body, ""};
  return {FormatTable({"NAME", "DATE", "KIND", "SIZE", "NOTE"}, cells), reply.body, ""};
}

Result RestoreBackup(AgentClient& agent, const BackupRestoreOptions& options) {
  RequireDeletableArchive(options);
  const Endpoint relay = options.relay.empty() ? RequireRelay(agent) : ParseEndpoint(options.relay);
  const ZelContainer parameters = RestoreParameters(relay, ReceiverOf(agent, options), options);
  WorkQuery query{"receive", "", LatestWork(agent)};
  const ActionReply reply =
      InvokeWithProgress(agent, kRestoreBackupFromRelay, parameters, query, options.showsProgress);
  if (reply.code == kFailureCode) {
    throw Failure(ExitStatus::kActionFailed,
                  "the relay " + relay.host + ":" + std::to_string(relay.port) +
                      " is not reached, refuses or has no such backup; its log and the agent's " +
                      "say why (" + kRestoreBackupFromRelay + ": " + DescribeCode(reply.code) + ")",
                  reply.body);
  }
  RequireSuccess(kRestoreBackupFromRelay, reply);

  const std::string stored = RequireText(kRestoreBackupFromRelay, reply, "Name");
  query.fileName = FileNameOf(stored);
  const std::optional<WorkReport> upload = FindEndedWork(agent, query);
  const std::string failure =
      upload ? upload->failure : "nothing was received; the relay's log says why";
  if (!failure.empty()) {
    throw Failure(ExitStatus::kActionFailed, "the upload failed: " + failure, reply.body);
  }
  return {EscapeForTerminal(stored) + "\n", reply.body, ""};
}
