#pragma once

#include <dirent.h>

#include <memory>

struct CloseDirectoryStream {
  void operator()(DIR* stream) const { closedir(stream); }
};
/// Owns a stream of a directory's entries; null is none.
using DirectoryStream = std::unique_ptr<DIR, CloseDirectoryStream>;
