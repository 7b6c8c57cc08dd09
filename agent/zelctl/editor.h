#pragma once

#include <filesystem>
#include <string>

// The user's editor. One implementation for each platform.

/// The command line of $VISUAL, else $EDITOR, else the system's usual editor.
std::string EditorCommand();

/// Creates an empty file that only this user may read or write, with a name that nobody could
/// foresee and that ends in `extension` (with its dot, ASCII; may be empty). Throws
/// std::runtime_error.
std::filesystem::path CreatePrivateFile(const std::string& extension);

/// Runs `command` with the file as its last argument on this program's terminal and waits. Returns
/// its exit status. Throws std::runtime_error when it could not be started.
int RunEditor(const std::string& command, const std::filesystem::path& file);
