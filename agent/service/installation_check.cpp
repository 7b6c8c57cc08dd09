#include "agent/service/installation_check.h"

#include <set>
#include <system_error>

#include "agent/libZel/native_path.h"
#include "agent/libZelCore/core_platform.h"
#include "agent/libZelCore/settings.h"
#include "agent/service/installation_access.h"
#include "agent/service/named_files.h"

namespace {

namespace fs = std::filesystem;

/// More would hide what is to be done first.
constexpr size_t kMostProblems = 8;

class Examination {
 public:
  void LookAt(const fs::path& path, PathUse use = PathUse::kTrusted) {
    if (path.empty() || IsOver()) return;
    const std::string weakness = FindWeakness(path, use);
    // A directory that is wrong is so for all that stands below it.
    if (!weakness.empty() && (problems_.empty() || problems_.back() != weakness))
      problems_.push_back(weakness);
  }

  /// The directory and everything below it, and below the directories that links there lead to.
  void LookBelow(const fs::path& directory) {
    LookAt(directory);
    std::error_code error;
    if (!fs::exists(directory, error)) return;
    // Links may lead to what has been seen already, or round in a circle.
    const fs::path place = fs::canonical(directory, error);
    if (!seen_.insert(error ? directory : place).second) return;
    fs::recursive_directory_iterator entries(directory, error);
    for (; !error && entries != fs::recursive_directory_iterator(); entries.increment(error)) {
      if (IsOver()) return;
      std::error_code ignored;
      const bool leadsOn = entries->is_symlink(ignored) && entries->is_directory(ignored);
      leadsOn ? LookBelow(entries->path()) : LookAt(entries->path());
    }
    // What cannot be listed cannot be vouched for.
    if (error) {
      problems_.push_back(std::string(FromNativePath(directory).Utf8()) +
                          " cannot be looked through: " + error.message());
    }
  }

  std::vector<std::string> Take() { return std::move(problems_); }

 private:
  bool IsOver() const { return problems_.size() >= kMostProblems; }

  std::vector<std::string> problems_;
  std::set<fs::path> seen_;
};

void LookAtDatabase(const Settings& settings, const fs::path& data, Examination* examination) {
  if (!settings.isMaster) return;
  if (settings.masterDatabase.empty()) return examination->LookBelow(data / "TaskDatabase");
  const NamedFiles files = FilesOfDatabase(settings.masterDatabase);
  for (const fs::path& file : files.trusted) examination->LookAt(file);
  for (const fs::path& file : files.secret) examination->LookAt(file, PathUse::kSecret);
}

/// The scripts that start with the agent, and those that stand beside them.
void LookAtScripts(const fs::path& home, Examination* examination) {
  const fs::path scripts = home / "data" / "ZelCoreUtils";
  examination->LookBelow(scripts);
  for (const fs::path& script : StartupScripts(home / "config" / "ZelCoreUtils.ini", scripts))
    examination->LookAt(script);
}

void LookAtConfiguration(const fs::path& home, Examination* examination) {
  const fs::path config = home / "config";
  const fs::path file = config / "zelagent.ini";
  const SettingsResult loaded = LoadSettings(file);
  const Settings& settings = loaded.settings;
  if (loaded.holdsPassword) examination->LookAt(file, PathUse::kSecret);
  examination->LookAt(config / "users", PathUse::kSecret);
  examination->LookAt(settings.fleetSecretFile, PathUse::kSecret);
  examination->LookAt(settings.privateKeyFile, PathUse::kSecret);
  for (const fs::path& other :
       {settings.certificateFile, settings.fleetCaFile, settings.webAuthoritiesFile})
    examination->LookAt(other);
  LookAtDatabase(settings, home / "data", examination);
  // Scripts may be named by drives.
  SetDriveMap(settings.drives);
  LookAtScripts(home, examination);
}

}  // namespace

std::vector<std::string> InstallationProblems(const Installation& installation) {
  if (!HasAdministratorsRights()) return {};
  // As they stand: behind a link ".." is not what it is in the text.
  const fs::path home = fs::absolute(installation.home);
  Examination examination;
  examination.LookBelow(fs::absolute(installation.programs));
  examination.LookBelow(fs::absolute(installation.modules));
  examination.LookAt(home);
  examination.LookBelow(home / "config");
  examination.LookAt(home / "data");
  examination.LookAt(home / "data" / "identity");
  examination.LookAt(home / "log");
  LookAtConfiguration(home, &examination);
  return examination.Take();
}

void CheckInstallation(const Installation& installation) {
  // What is there is judged; what is missing must not be made by somebody else afterwards.
  for (const char* const name : {"config", "data", "log"})
    core_platform::MakePrivateDirectory(fs::absolute(installation.home) / name);
  const std::vector<std::string> problems = InstallationProblems(installation);
  if (problems.empty()) return;
  std::string text = "ordinary users could take over this agent, so it does not start:";
  for (const std::string& problem : problems) text += "\n  " + problem;
  throw UnsafeInstallation(text);
}
