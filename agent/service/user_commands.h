#pragma once

#include <filesystem>
#include <string>

// The console users of an agent's home. A running agent sees the changes. Each throws
// std::runtime_error with a sentence for the administrator.

/// What is said about a login that is there already.
enum class KnownUser { kRefuse, kKeep };

/// `passwordFile` empty: the password is asked for.
void AddUser(const std::filesystem::path& home, const std::string& login, const std::string& role,
             const std::filesystem::path& passwordFile, KnownUser known);
void ChangePassword(const std::filesystem::path& home, const std::string& login,
                    const std::filesystem::path& passwordFile);
void RemoveUser(const std::filesystem::path& home, const std::string& login);
/// Prints a line "LOGIN<tab>ROLE" for each user.
void ListUsers(const std::filesystem::path& home);
