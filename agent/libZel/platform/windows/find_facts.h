#pragma once

#include <windows.h>

#include <filesystem>

#include "agent/libZel/file_facts.h"

/// What a directory, or one question, tells of an entry.
struct FoundEntry {
  DWORD attributes = 0;
  /// What kind of reparse point it is, if it is one.
  DWORD reparseTag = 0;
  FILETIME written{};
  uint64_t sizeBytes = 0;
};

/// A symbolic link or a mount point. Other reparse points (files kept by a cloud or deduplication
/// service) are files like any.
bool IsLink(const FoundEntry& found);

/// The documented attributes.
uint32_t AttributesOf(const FoundEntry& found);

/// Its facts; a link is followed. `path` is the entry's own.
FileFacts FactsOf(const FoundEntry& found, const std::filesystem::path& path);

FoundEntry EntryOf(const WIN32_FIND_DATAW& data);
