#include "agent/service/first_settings.h"

#include <optional>
#include <stdexcept>
#include <system_error>
#include <vector>

#include "agent/libZel/file_text.h"
#include "agent/libZelCore/core_log.h"
#include "agent/libZelCore/core_platform.h"
#include "agent/libZelCore/private_file.h"
#include "agent/libZelCore/settings.h"

namespace {

namespace fs = std::filesystem;

constexpr const char* kSecretName = "fleet.secret";
constexpr const char* kAuthorityName = "fleet-ca.pem";
constexpr const char* kMasterPort = "7460";

std::string ReadAll(const fs::path& file) {
  std::optional<std::string> content = ReadFileText(file);
  if (!content) throw std::runtime_error("cannot read the file " + FileText(file));
  return *std::move(content);
}

// One file holds the secret and nothing else, so a value with a line end in it would say more than
// its own key.
void RefuseLineEnds(const char* what, const std::string& value) {
  if (value.find_first_of("\r\n") == std::string::npos) return;
  throw std::runtime_error(std::string(what) + " has more than one line");
}

bool HasPort(const std::string& master) {
  const size_t colon = master.rfind(':');
  const size_t bracket = master.rfind(']');
  if (colon == std::string::npos) return false;
  return bracket == std::string::npos || colon > bracket;
}

std::string MasterAddress(const std::string& master) {
  return "https://" + master + (HasPort(master) ? "" : std::string(":") + kMasterPort);
}

std::string TextOf(const FirstSettings& settings) {
  std::string text =
      "# Settings of this agent, read when it starts. \"zelagent config check\" tells mistakes.\n";
  if (!settings.name.empty()) text += "\n[agent]\nname = " + settings.name + "\n";
  if (settings.port) text += "\n[http]\nport = " + std::to_string(*settings.port) + "\n";
  if (!settings.fleetSecretFile.empty() || !settings.authorityFile.empty()) text += "\n[fleet]\n";
  if (!settings.fleetSecretFile.empty()) text += std::string("secret_file = ") + kSecretName + "\n";
  if (!settings.authorityFile.empty()) text += std::string("ca = ") + kAuthorityName + "\n";
  if (!settings.master.empty())
    text += "\n[master]\naddress = " + MasterAddress(settings.master) + "\n";
  return text;
}

/// The files beside the settings; those that were made go again unless they are kept.
class NewFiles {
 public:
  explicit NewFiles(fs::path directory) : directory_(std::move(directory)) {}
  ~NewFiles() {
    std::error_code ignored;
    for (const fs::path& file : made_) fs::remove(file, ignored);
  }
  NewFiles(const NewFiles&) = delete;
  NewFiles& operator=(const NewFiles&) = delete;

  void Copy(const fs::path& source, const char* name) {
    if (source.empty()) return;
    const std::string content = ReadAll(source);
    const fs::path target = directory_ / name;
    if (fs::exists(target))
      throw std::runtime_error("there is a file " + FileText(target) +
                               " already, of settings that are gone; remove it or keep it apart");
    WritePrivateFile(target, content);
    made_.push_back(target);
  }

  void Keep() { made_.clear(); }

 private:
  const fs::path directory_;
  std::vector<fs::path> made_;
};

// As the agent would read it.
void Check(const std::string& text, const fs::path& directory) {
  const SettingsResult result = ParseSettings(text, directory);
  std::string problems;
  for (const auto* list : {&result.errors, &result.warnings})
    for (const std::string& problem : *list) problems += "\n  " + problem;
  if (!problems.empty()) throw std::runtime_error("these settings cannot be used:" + problems);
}

}  // namespace

bool WriteFirstSettings(const fs::path& home, const FirstSettings& settings) {
  const fs::path directory = home / "config";
  const fs::path file = directory / "zelagent.ini";
  if (fs::exists(file)) return false;
  RefuseLineEnds("the name", settings.name);
  RefuseLineEnds("the master's address", settings.master);

  core_platform::MakePrivateDirectory(directory);
  NewFiles files(directory);
  files.Copy(settings.fleetSecretFile, kSecretName);
  files.Copy(settings.authorityFile, kAuthorityName);
  const std::string text = TextOf(settings);
  Check(text, directory);
  WritePrivateFile(file, text);
  files.Keep();
  return true;
}
