#pragma once

#include <filesystem>
#include <string>

// What the check of the installation asks of the system; one implementation in each folder of
// platform/.

/// Whether this process may do what ordinary users of the machine may not.
bool HasAdministratorsRights();

enum class PathUse {
  kTrusted,  ///< nobody but administrators may change or replace it
  kSecret,   ///< nor may others read it
};

/// The first thing wrong with a file or directory, with a directory above it, or with a link on the
/// way: "PATH belongs to the account 1000". Empty when nothing is, or when nothing stands there and
/// nobody but administrators could put something there.
std::string FindWeakness(const std::filesystem::path& path, PathUse use);
