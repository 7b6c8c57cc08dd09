#pragma once

#include <filesystem>
#include <string>

namespace file_system {

/// A name for a file of the library's own, which no other file has.
std::wstring RandomName();

/// So many of them are tried where they turn out to be taken.
constexpr int kMaxNameAttempts = 100;

/// `path` with its last name replaced.
std::filesystem::path Beside(const std::filesystem::path& path, const std::wstring& name);

/// Renames a file, in place of the file `destination` where there is one, even while that is open
/// (as far as those who have it open allow it to be deleted). `flags` are further ones of
/// MoveFileExW. Returns an error number.
int MoveOver(const std::filesystem::path& source, const std::filesystem::path& destination,
             unsigned long flags = 0);

}  // namespace file_system
