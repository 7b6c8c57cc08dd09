#pragma once

#include <filesystem>

/// Deletes what an agent that was killed left half renamed in its home: regular files with names of
/// temporary ones (.zel-<16 hexadecimal digits>.tmp) in config/, data/ and the directories of
/// data/. To be called before anything of this home is written. Never fails: what cannot be deleted
/// stays.
void RemoveLeftovers(const std::filesystem::path& home);
