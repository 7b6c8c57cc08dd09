#pragma once

#include <filesystem>
#include <string>
#include <vector>

// Files that settings name in the midst of other text, for the check of the installation.

struct NamedFiles {
  std::vector<std::filesystem::path> trusted;
  std::vector<std::filesystem::path> secret;
};

/// The files by which a master reaches this database ([master] database): its own, or those with
/// certificates, keys and passwords that a connection string of PostgreSQL names by full paths.
NamedFiles FilesOfDatabase(const std::string& database);

/// The scripts that the module's INI file starts with the agent. `scripts` is what names without a
/// root begin at. Drives are those of SetDriveMap.
std::vector<std::filesystem::path> StartupScripts(const std::filesystem::path& iniFile,
                                                  const std::filesystem::path& scripts);
