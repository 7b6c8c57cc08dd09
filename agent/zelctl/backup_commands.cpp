#include "agent/zelctl/backup_commands.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <map>
#include <string_view>
#include <tuple>

#include "actions/relay/backup_rank.h"
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
std::string StemOf(const std::string& name) {
  return name.substr(0, name.size() - (IsArchiveName(name) ? kExtension.size() : 0));
}

BackupRow::Kind KindOf(const ListingRow& entry) {
  if (entry.isDirectory) return BackupRow::Kind::kDirectory;
  return IsArchiveName(entry.name) ? BackupRow::Kind::kArchive : BackupRow::Kind::kFile;
}

const char* NameOf(BackupRow::Kind kind) {
  switch (kind) {
    case BackupRow::Kind::kDirectory:
      return "directory";
    case BackupRow::Kind::kArchive:
      return "archive";
    case BackupRow::Kind::kFile:
      break;
  }
  return "file";
}

BackupRow ReadRow(const ListingRow& entry) {
  BackupRow row;
  row.name = entry.name;
  row.kind = KindOf(entry);
  row.sizeBytes = entry.sizeBytes;
  row.backup = StemOf(entry.name);

  const size_t bar = row.backup.rfind('_');
  if (bar == std::string::npos || bar == 0) return row;
  row.date = DateOf(std::string_view(row.backup).substr(bar + 1));
  if (!row.date.empty()) row.backup.resize(bar);
  return row;
}

/// Whether an entry that `--last` never chooses is shown all the same.
bool IsBackup(const BackupRow& row, const std::string& name) {
  if (row.kind == BackupRow::Kind::kFile) return false;
  // A directory that is called like an archive is neither.
  const bool isArchive = row.kind == BackupRow::Kind::kArchive;
  if (!isArchive && IsArchiveName(row.name)) return false;
  if (name.empty()) return isArchive || !row.date.empty();
  return row.backup == name || StemOf(row.name) == name;
}

void MarkNewest(std::vector<BackupRow>* rows) {
  std::optional<uint32_t> highest;
  for (const BackupRow& row : *rows) highest = std::max(highest, row.rank);
  for (BackupRow& row : *rows) row.isNewest = row.rank && row.rank == highest;
}

/// A backup also counts among those of each shorter NAME that its own ends with.
void MarkNewestOfEachName(std::vector<BackupRow>* rows) {
  std::map<std::string, std::optional<uint32_t>> highest;
  for (const BackupRow& row : *rows) highest[row.backup];
  for (const BackupRow& row : *rows) {
    for (size_t start = 0; start < row.backup.size(); ++start) {
      const auto found = highest.find(row.backup.substr(start));
      if (found != highest.end()) found->second = std::max(found->second, row.rank);
    }
  }
  for (BackupRow& row : *rows) row.isNewest = row.rank && row.rank == highest[row.backup];
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
    BackupRow row = ReadRow(entry);
    row.rank = RankOfBackup(Text(entry.name), Text(name.empty() ? row.backup : name));
    if (row.rank || IsBackup(row, name)) rows.push_back(std::move(row));
  }
  name.empty() ? MarkNewestOfEachName(&rows) : MarkNewest(&rows);
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
    const bool hasSize = row.kind != BackupRow::Kind::kDirectory;
    cells.push_back({row.name, row.date.empty() ? "-" : row.date, NameOf(row.kind),
                     hasSize ? FormatShortSize(row.sizeBytes) : "-", row.isNewest ? "newest" : ""});
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
