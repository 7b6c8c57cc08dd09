#pragma once

#include <memory>
#include <string>
#include <vector>

#include "agent/libZel/archive_limits.h"
#include "agent/libZel/debug_context.h"
#include "libZel/archive.h"
#include "libZel/file.h"
#include "libZel/path.h"
#include "tests/agent/temporary_directory.h"

/// Where an entry goes, as the module puts it together.
inline ZelString TargetOf(const ZelString& destination, const ZelString& entryPath) {
  ZelString directory;
  ZelString name;
  ZelString extension;
  SplitPath(entryPath, nullptr, &directory, &name, &extension);
  ZelString target = destination + "\\";
  if (!directory.IsEmpty()) target += directory + "\\";
  return target + name + extension;
}

/// Unpacks as the module does. Returns the entries that did not come out.
inline std::vector<ZelString> ExtractAll(const ZelString& archivePath,
                                         const ZelString& destination) {
  std::vector<ZelString> missing;
  GenericArchive archive(archivePath, kArchiveZip);
  for (uint32_t index = 1; index <= archive.GetFileCount(); ++index) {
    const ZelString path = archive.GetEntryPath(index);
    const ZelString target = TargetOf(destination, path);
    const int error = archive.ExtractEntry(index, target);
    if ((FileExists(target) == 1) != (error == 0)) missing.push_back("(answers differ)");
    if (error != 0) missing.push_back(path);
  }
  return missing;
}

/// Packs a directory: what AddDirectory answers.
inline int Pack(const ZelString& directory, const ZelString& archivePath, int level = 6) {
  GenericArchive archive(archivePath, kArchiveZip);
  return archive.AddDirectory(directory, 1, 0, "", "", level, nullptr);
}

inline std::vector<ZelString> NamesIn(const ZelString& archivePath) {
  std::vector<ZelString> names;
  GenericArchive archive(archivePath, kArchiveZip);
  for (uint32_t index = 1; index <= archive.GetFileCount(); ++index) {
    names.push_back(archive.GetEntryPath(index));
  }
  return names;
}

/// Puts the limits that were in force back.
class KeptArchiveLimits {
 public:
  KeptArchiveLimits() : limits_(GetArchiveLimits()) {}
  ~KeptArchiveLimits() { SetArchiveLimits(limits_); }
  KeptArchiveLimits(const KeptArchiveLimits&) = delete;
  KeptArchiveLimits& operator=(const KeptArchiveLimits&) = delete;

 private:
  const ArchiveLimits limits_;
};

/// What the library logs meanwhile.
class LibraryLogFile {
 public:
  explicit LibraryLogFile(const std::filesystem::path& path) : path_(path) {
    DebugOptions options;
    options.logFile = path;
    context_ = std::make_unique<ZelDebugContext>(options);
    LibraryLog().SetContext(context_.get());
  }
  ~LibraryLogFile() { LibraryLog().SetContext(nullptr); }
  LibraryLogFile(const LibraryLogFile&) = delete;
  LibraryLogFile& operator=(const LibraryLogFile&) = delete;

  std::string Text() const { return ReadFile(path_); }

 private:
  const std::filesystem::path path_;
  std::unique_ptr<ZelDebugContext> context_;
};

/// Bytes that do not become smaller.
inline std::string Noise(size_t count) {
  std::string bytes(count, '\0');
  uint32_t state = 1;
  for (char& byte : bytes) {
    state = state * 1664525 + 1013904223;
    byte = static_cast<char>(state >> 24);
  }
  return bytes;
}
