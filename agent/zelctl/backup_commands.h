#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "agent/zelctl/agent_client.h"
#include "agent/zelctl/commands.h"
#include "agent/zelctl/listing_output.h"

// zelctl's verbs over backups: directories and ZIP archives called NAME or NAME_YYYYMMDD. Each
// throws `Failure`, which carries the deciding reply, unless it succeeded.

struct BackupRow {
  enum class Kind { kDirectory, kArchive, kFile };

  std::string name;    ///< of the entry
  std::string backup;  ///< NAME
  std::string date;    ///< "YYYY-MM-DD", or empty
  Kind kind = Kind::kDirectory;
  uint64_t sizeBytes = 0;        ///< of an archive or a file
  std::optional<uint32_t> rank;  ///< among those that `--last` chooses from; none: never chosen
  bool isNewest = false;  ///< what `--last` chooses for NAME, or the `name` that was asked for
};

/// The backups among the entries of a directory, by NAME and date. `name` empty: all archives, and
/// the directories with a date; else those called so, which may be a pattern for `--last`, and
/// whatever `--last` chooses from.
std::vector<BackupRow> FindBackups(const std::vector<ListingRow>& entries, const std::string& name);

/// The backups in a directory on the agent's machine.
Result ListBackups(AgentClient& agent, const std::string& directory, const std::string& name);

struct BackupRestoreOptions {
  std::string name;
  std::string from;     ///< a directory on the relay
  std::string to;       ///< a directory on the agent's machine
  std::string relay;    ///< HOST:PORT; empty: the agent's relay
  bool newest = false;  ///< the newest NAME_YYYYMMDD instead of NAME
  std::string host;     ///< where the relay finds the agent; empty: the agent's own answer
  uint32_t port = 0;    ///< the same
  bool showsProgress = false;
  bool isDirectory = false;  ///< NAME is one, and an archive NAME.zip beside it may be deleted
};

/// Brings a backup back to the agent from its relay; prints where its archive is now. The action
/// says nothing of the transfer itself; the agent's own account of it decides.
Result RestoreBackup(AgentClient& agent, const BackupRestoreOptions& options);
