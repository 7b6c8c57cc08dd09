#pragma once

#include <sys/stat.h>

#include <string_view>

#include "agent/libZel/file_facts.h"

/// The attributes that a name has by itself.
inline uint32_t AttributesOfName(std::string_view name) {
  return name.starts_with('.') && name != "." && name != ".." ? kHiddenAttribute : 0;
}

/// The facts of an entry whose attributes by name and by being a link are `attributes`.
FileFacts FactsOf(const struct stat& info, uint32_t attributes);

/// Whether the regular file `name` below the open directory (or AT_FDCWD) can be read and is text.
/// The caller knows that it is one.
bool IsTextAt(int directory, const char* name);
