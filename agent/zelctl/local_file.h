#pragma once

#include <filesystem>
#include <string>

// Files on this machine, and standard input.

/// A path for messages, as UTF-8.
std::string PathText(const std::filesystem::path& path);

/// All bytes of the file. Throws `Failure` (kUsage) when it cannot be read.
std::string ReadLocalFile(const std::filesystem::path& file);

/// All bytes of standard input. Throws `Failure` (kUsage) when it cannot be read.
std::string ReadStandardInput();

/// The first line of a file that is there for the password in it; `name` is an argument. Throws
/// `Failure` (kUsage) when it cannot be opened or has none.
std::string ReadPasswordFile(const std::string& name);

/// Replaces the bytes of an existing file. Throws `Failure` (kUsage) when it cannot be written.
void WriteLocalFile(const std::filesystem::path& file, const std::string& bytes);
