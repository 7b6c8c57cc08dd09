#pragma once

#include <filesystem>

/// Ends the programs, but not this one, that run from files below the directory, and waits for
/// their ends. Throws std::runtime_error that names one that does not end.
void EndProgramsOf(const std::filesystem::path& directory);
