#include "agent/libZelCore/alias_table.h"

#include <algorithm>
#include <system_error>

#include "agent/libZel/ascii.h"
#include "agent/libZel/native_path.h"
#include "agent/libZelCore/core_log.h"
#include "agent/libZelCore/privacy_policy.h"
#include "agent/libZelCore/settings_keys.h"

namespace {

namespace fs = std::filesystem;
using std::chrono::duration_cast;
using std::chrono::milliseconds;

constexpr size_t kMaxNameLength = 64;
constexpr size_t kMaxAliases = 1024;

/// Empty, or what is wrong with the name.
std::string CheckName(std::string_view name) {
  if (!IsAliasName(name)) {
    return "the name of an alias is 1 to 64 letters, digits, \".\", \"-\" and \"_\", the first "
           "one no \".\"";
  }
  if (name == kProtocolName) return "the name \"v1\" is the protocol's own";
  return {};
}

CanonicalPath Refused(std::string reason) {
  return {{}, std::move(reason)};
}

/// Both as `FoldCase` gives them.
bool IsAtOrBelow(std::string_view path, std::string_view directory) {
  return path.starts_with(directory) &&
         (path.size() == directory.size() || path[directory.size()] == '/');
}

/// The canonical path as the system takes it.
fs::path Native(const CanonicalPath& canonical) {
  return ToNativePath(canonical.path + "/").path;
}

CanonicalPath CanonicalOf(const fs::path& directory) {
  const NativePath native = ToNativePath(FromNativePath(directory));
  return native ? Canonical(native.path) : Refused(native.error);
}

/// Whether the file, or the link of its name, stands in this directory, which is as `FoldCase`
/// gives it. A file that cannot be resolved might be anywhere.
bool Holds(const std::string& directory, const fs::path& file) {
  const NativePath native = ToNativePath(FromNativePath(file));
  if (!native) return true;
  for (const CanonicalPath& place : {CanonicalEntry(native.path), Canonical(native.path)}) {
    const std::string path = FoldCase(place.path);
    if (!place || path.substr(0, path.rfind('/')) == directory) return true;
  }
  return false;
}

const char* OwnerForLog(const std::string& owner) {
  return owner.empty() ? "this agent" : owner.c_str();
}

}  // namespace

bool IsAliasName(std::string_view name) {
  return !name.empty() && name.size() <= kMaxNameLength && name[0] != '.' &&
         std::all_of(name.begin(), name.end(), IsAsciiNameCharacter);
}

struct AliasTable::Entry {
  Key key;
  Alias alias;
  std::string canonical;  ///< where the alias led when it was made, as `FoldCase` gives it
  uint32_t count = 1;
  uint32_t uploads = 0;
  Clock::time_point heardAt;
};

class AliasTable::RunningUpload : public Upload {
 public:
  /// Holding the table's lock.
  RunningUpload(AliasTable& table, const std::shared_ptr<Entry>& entry)
      : table_(table), entry_(entry) {
    ++entry_->uploads;
  }
  ~RunningUpload() override { table_.EndUpload(*entry_); }

  void SetDirectory(fs::path directory) { directory_ = std::move(directory); }
  const fs::path& Directory() const override { return directory_; }
  void Complete() override { table_.Remove(entry_); }

 private:
  AliasTable& table_;
  const std::shared_ptr<Entry> entry_;
  fs::path directory_;
};

AliasTable::AliasTable(fs::path home, fs::path data, std::vector<GuardedFile> guarded,
                       milliseconds longestSilence, Now now)
    : home_(std::move(home)),
      data_(std::move(data)),
      guarded_(std::move(guarded)),
      longestSilence_(longestSilence),
      now_(std::move(now)) {}

AliasTable::~AliasTable() = default;

std::string AliasTable::Add(const Alias& alias) {
  std::string problem = CheckName(alias.name);
  if (!problem.empty()) return problem;
  const CanonicalPath directory = Judge(alias.directory);
  return directory ? AddJudged(alias, directory) : directory.error;
}

std::string AliasTable::AddJudged(const Alias& alias, const CanonicalPath& directory) {
  const std::string canonical = FoldCase(directory.path);
  const std::lock_guard lock(mutex_);
  const Clock::time_point now = now_();
  DropExpired(now);

  Key key(alias.owner, alias.name);
  if (const std::shared_ptr<Entry> known = Find(key)) {
    if (known->canonical != canonical) return "the alias exists and leads to another directory";
    ++known->count;
    known->alias.isTemporary = known->alias.isTemporary && alias.isTemporary;
    known->heardAt = now;
    return {};
  }
  if (entries_.size() >= kMaxAliases)
    return "there are " + std::to_string(kMaxAliases) + " aliases already";

  auto entry = std::make_shared<Entry>();
  entry->key = key;
  entry->alias = alias;
  entry->canonical = canonical;
  entry->heardAt = now;
  entries_.emplace(std::move(key), std::move(entry));
  CoreLog().PrintWithNL("Alias \"%s\" of %s for %S%s: made", alias.name.c_str(),
                        OwnerForLog(alias.owner), alias.directory,
                        alias.isTemporary ? ", for one file" : "");
  return {};
}

bool AliasTable::Delete(const std::string& owner, const std::string& name) {
  const std::lock_guard lock(mutex_);
  DropExpired(now_());
  const std::shared_ptr<Entry> entry = Find({owner, name});
  if (!entry) return false;
  entry->heardAt = now_();
  if (--entry->count > 0) return true;
  entries_.erase(entry->key);
  CoreLog().PrintWithNL("Alias \"%s\" of %s: deleted", name.c_str(), OwnerForLog(owner));
  return true;
}

void AliasTable::Hear(const std::string& owner) {
  const std::lock_guard lock(mutex_);
  const Clock::time_point now = now_();
  // A sign of life that comes too late brings nothing back.
  for (auto it = entries_.lower_bound({owner, {}});
       it != entries_.end() && it->first.first == owner;) {
    if (HasExpired(*it->second, now)) {
      it = Expire(it);
    } else {
      it->second->heardAt = now;
      ++it;
    }
  }
}

std::unique_ptr<AliasTable::Upload> AliasTable::BeginUpload(const std::string& owner,
                                                            const std::string& name,
                                                            std::string* problem) {
  std::unique_lock lock(mutex_);
  DropExpired(now_());
  const std::shared_ptr<Entry> entry = Find({owner, name});
  if (!entry) {
    *problem = "there is no such alias";
    return nullptr;
  }
  auto upload = std::make_unique<RunningUpload>(*this, entry);
  lock.unlock();

  // It counts as under way from here on, so that it cannot expire while slow disks are asked.
  CanonicalPath directory = Judge(entry->alias.directory);
  if (directory && FoldCase(directory.path) != entry->canonical)
    directory = Refused("the alias leads elsewhere than when it was made");
  if (!directory) {
    *problem = directory.error;
    return nullptr;
  }
  upload->SetDirectory(Native(directory));
  return upload;
}

std::vector<AliasTable::Row> AliasTable::List() {
  const std::lock_guard lock(mutex_);
  const Clock::time_point now = now_();
  DropExpired(now);
  std::vector<Row> rows;
  rows.reserve(entries_.size());
  for (const auto& [key, entry] : entries_) {
    Row row;
    row.alias = entry->alias;
    row.uploads = entry->uploads;
    row.silent = duration_cast<milliseconds>(now - entry->heardAt);
    // One that an upload keeps alive starts to expire when that ends.
    row.expiresIn = entry->uploads > 0 ? longestSilence_ : longestSilence_ - row.silent;
    rows.push_back(std::move(row));
  }
  return rows;
}

/// Where the directory really is, or why files may not be stored there.
CanonicalPath AliasTable::Judge(const ZelString& directory) const {
  const NativePath native = ToNativePath(directory);
  if (!native) return Refused(native.error);
  if (!IsRooted(directory)) return Refused("the path is not a full one");
  CanonicalPath canonical = Canonical(native.path);
  if (!canonical) return canonical;
  // A name with a backslash would be taken for two on the way back to a native path.
  if (canonical.path.find('\\') != std::string::npos)
    return Refused("the path leads to a name with a backslash");
  std::string own = FindOwnUse(canonical.path);
  if (!own.empty()) return Refused(std::move(own));

  std::error_code error;
  const fs::file_status status = fs::status(Native(canonical), error);
  if (fs::exists(status) && !fs::is_directory(status))
    return Refused("the path names something that is no directory");
  return canonical;
}

/// Empty, or what of the agent's own files from others could replace there, a sentence.
std::string AliasTable::FindOwnUse(const std::string& canonical) const {
  if (IsOwn(canonical)) return "the path leads into the agent's own directory";
  const std::string directory = FoldCase(canonical);
  for (const GuardedFile& guarded : guarded_) {
    if (!guarded.file.empty() && Holds(directory, guarded.file))
      return std::string("the directory holds the agent's ") + guarded.what;
  }
  return {};
}

/// An own directory that cannot be resolved might be anywhere.
bool AliasTable::IsOwn(const std::string& canonical) const {
  const CanonicalPath data = CanonicalOf(data_);
  if (!data) return true;
  const std::string path = FoldCase(canonical);
  if (IsAtOrBelow(path, FoldCase(data.path))) return false;
  // An installation may have links in the home that lead to where its system keeps such things.
  for (const fs::path& own : {home_, home_ / "config", home_ / "log"}) {
    const CanonicalPath place = CanonicalOf(own);
    if (!place || IsAtOrBelow(path, FoldCase(place.path))) return true;
  }
  return false;
}

bool AliasTable::HasExpired(const Entry& entry, Clock::time_point now) const {
  return entry.uploads == 0 && now - entry.heardAt > longestSilence_;
}

void AliasTable::DropExpired(Clock::time_point now) {
  for (auto it = entries_.begin(); it != entries_.end();)
    it = HasExpired(*it->second, now) ? Expire(it) : std::next(it);
}

AliasTable::Entries::iterator AliasTable::Expire(Entries::iterator position) {
  const auto& [owner, name] = position->first;
  CoreLog().WarningWithNL("Alias \"%s\" of %s: expired, its owner has been silent", name.c_str(),
                          OwnerForLog(owner));
  return entries_.erase(position);
}

/// Null without one.
std::shared_ptr<AliasTable::Entry> AliasTable::Find(const Key& key) {
  const auto found = entries_.find(key);
  return found == entries_.end() ? nullptr : found->second;
}

void AliasTable::EndUpload(Entry& entry) {
  const std::lock_guard lock(mutex_);
  --entry.uploads;
  entry.heardAt = now_();
}

/// Takes a temporary alias away, unless that happened already.
void AliasTable::Remove(const std::shared_ptr<Entry>& entry) {
  const std::lock_guard lock(mutex_);
  if (!entry->alias.isTemporary || Find(entry->key) != entry) return;
  entries_.erase(entry->key);
  CoreLog().PrintWithNL("Alias \"%s\" of %s: gone with its file", entry->alias.name.c_str(),
                        OwnerForLog(entry->alias.owner));
}
