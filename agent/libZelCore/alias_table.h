#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "libZel/string.h"

/// Directories of this machine into which others may store files over HTTP for a while, under the
/// target "/alias/file". An alias belongs to whoever made it and is seen by its owner alone. It
/// goes away when it is deleted, when its owner has been silent for long, and with the agent.
///
/// Threads: any number may call at once.
class AliasTable {
 public:
  using Clock = std::chrono::steady_clock;

  struct Alias {
    std::string owner;  ///< "agent/NAME", a console user's login, or empty for this agent itself
    std::string name;   ///< 1 to 64 of letters, digits, "-", "_" and ".", not starting with "."
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

  /// No alias leads into `home`, the agent's own directory, other than below `data`.
  AliasTable(std::filesystem::path home, std::filesystem::path data,
             std::chrono::milliseconds longestSilence);

  /// Empty on success, else what is wrong with the alias. The same name with the same directory
  /// again counts, and must be deleted as often.
  std::string Add(const Alias& alias);
  /// False when the owner has no alias of this name.
  bool Delete(const std::string& owner, const std::string& name);
  /// A sign of life of the owner.
  void Hear(const std::string& owner);

  /// An upload under way; while it lives its alias does not expire.
  class Upload {
   public:
    virtual ~Upload() = default;
    /// Where the file goes; looked up and judged anew when the upload began.
    virtual const std::filesystem::path& Directory() const = 0;
    /// The file is there: a temporary alias goes away.
    virtual void Complete() = 0;
  };
  /// Null when the owner has no such alias or it may not be used any more; `*problem` says why.
  std::unique_ptr<Upload> BeginUpload(const std::string& owner, const std::string& name,
                                      std::string* problem);

  /// By owner and name.
  std::vector<Row> List();

 private:
  struct Entry;
  using Key = std::pair<std::string, std::string>;

  void DropExpired(Clock::time_point now);

  const std::filesystem::path home_;
  const std::filesystem::path data_;
  const std::chrono::milliseconds longestSilence_;
  std::mutex mutex_;
  std::map<Key, std::shared_ptr<Entry>> entries_;
};
