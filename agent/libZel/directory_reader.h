#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>

#include "agent/libZel/file_facts.h"
#include "libZel/string.h"

namespace file_system {

/// Reads a directory and tells facts of the entry it stands on. What it tells of an entry is asked
/// once and kept until the next. For one thread at once.
class DirectoryReader {
 public:
  DirectoryReader();
  ~DirectoryReader();
  DirectoryReader(const DirectoryReader&) = delete;
  DirectoryReader& operator=(const DirectoryReader&) = delete;

  /// An error number of the system, or 0.
  int Open(const std::filesystem::path& path);

  /// Goes to the next entry. False after the last one, and when `*error` is not 0.
  bool Next(int* error);

  // All below are about the entry that `Next` went to.

  /// Terminated, valid until `Next`.
  const TCHAR* Name() const;
  /// Appends the name as a `ZelString` holds it.
  void AppendName(std::string* wtf8) const;
  /// Attributes as far as the directory tells them; only for links, and where it does not tell what
  /// an entry is, the entry is looked at.
  uint32_t ListedAttributes();
  /// See `FileGetAttributes`. A directory is not looked at for them.
  uint32_t Attributes();
  /// An entry that cannot be looked at, or a link that leads nowhere, has the attributes that the
  /// directory tells, and nothing else.
  const FileFacts& Facts();
  /// The text test of `FileIsAscii`, made anew each time.
  bool IsText();

 private:
  struct Implementation;
  std::unique_ptr<Implementation> implementation_;
};

}  // namespace file_system
