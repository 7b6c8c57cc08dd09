#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "agent/libZelCore/canonical_path.h"
#include "libZel/string.h"

/// The first part of the protocol's own targets, which no alias may take.
constexpr std::string_view kProtocolName = "v1";

/// Whether it is 1 to 64 letters, digits, ".", "-" and "_", the first one no ".".
bool IsAliasName(std::string_view name);

/// Directories of this machine into which others may store files over HTTP for a while, under the
/// target "/alias/file". An alias belongs to whoever made it and serves its owner alone. It
/// goes away when it is deleted, when its owner has been silent for long, and with the agent.
///
/// Threads: any number may call at once.
class AliasTable {
 public:
  using Clock = std::chrono::steady_clock;
  using Now = std::function<Clock::time_point()>;

  struct Alias {
    std::string owner;  ///< "agent/NAME", a console user's login, or empty for this agent itself
    std::string name;   ///< see IsAliasName
    ZelString directory;
    std::string serverName;    ///< what the owner says it is for
    bool isTemporary = false;  ///< gone with the first file stored
  };

  struct Row {
    Alias alias;
    uint32_t uploads = 0;  ///< under way
    std::chrono::milliseconds silent{0};
    std::chrono::milliseconds expiresIn{0};
  };

  /// A file that no upload may replace.
  struct GuardedFile {
    std::filesystem::path file;  ///< a full path; empty: none
    const char* what = "";       ///< "private key", ...
  };

  /// No alias leads into `home`, the agent's own directory, or to where its "config" and "log"
  /// stand when these are links, other than below `data`, nor to the directory of a guarded file,
  /// be that the file's own or one of a link to it. An alias whose owner has been silent for more
  /// than `longestSilence` goes away, unless an upload is under way. `now` tells the time.
  AliasTable(std::filesystem::path home, std::filesystem::path data,
             std::vector<GuardedFile> guarded, std::chrono::milliseconds longestSilence,
             Now now = Clock::now);
  ~AliasTable();

  /// Empty on success, else what is wrong with the alias, a sentence. The directory is a full path
  /// and need not exist yet. The same name with the same directory again counts, and must be
  /// deleted as often; it is temporary only when it was so each time.
  std::string Add(const Alias& alias);
  /// False when the owner has no alias of this name.
  bool Delete(const std::string& owner, const std::string& name);
  /// A sign of life of the owner.
  void Hear(const std::string& owner);

  /// An upload under way; while it lives its alias does not expire. It must not outlive the table.
  class Upload {
   public:
    virtual ~Upload() = default;
    /// Where the file goes, with every link resolved; looked up and judged anew when the upload
    /// began. It may not exist.
    virtual const std::filesystem::path& Directory() const = 0;
    /// The file is there: a temporary alias goes away.
    virtual void Complete() = 0;
  };
  /// Null when the owner has no such alias or it may not be used any more; `*problem` says why, a
  /// sentence.
  std::unique_ptr<Upload> BeginUpload(const std::string& owner, const std::string& name,
                                      std::string* problem);

  /// By owner and name.
  std::vector<Row> List();

 private:
  struct Entry;
  class RunningUpload;
  using Key = std::pair<std::string, std::string>;
  using Entries = std::map<Key, std::shared_ptr<Entry>>;

  CanonicalPath Judge(const ZelString& directory) const;
  std::string FindOwnUse(const std::string& canonical) const;
  bool IsOwn(const std::string& canonical) const;
  std::string AddJudged(const Alias& alias, const CanonicalPath& directory);
  bool HasExpired(const Entry& entry, Clock::time_point now) const;
  void DropExpired(Clock::time_point now);
  Entries::iterator Expire(Entries::iterator position);
  std::shared_ptr<Entry> Find(const Key& key);
  void EndUpload(Entry& entry);
  void Remove(const std::shared_ptr<Entry>& entry);

  const std::filesystem::path home_;
  const std::filesystem::path data_;
  const std::vector<GuardedFile> guarded_;
  const std::chrono::milliseconds longestSilence_;
  const Now now_;
  std::mutex mutex_;
  Entries entries_;
};
