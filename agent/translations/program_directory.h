#pragma once

#include <filesystem>

/// The directory of this program's file. Empty when the system does not tell.
std::filesystem::path TranslationsProgramDirectory();
