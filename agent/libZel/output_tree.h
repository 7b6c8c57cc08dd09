#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace file_system {

/// What a file or directory gets beside its content.
struct OutputAttributes {
  /// In nanoseconds since 1970 (UTC).
  std::optional<int64_t> modifiedNs;
  /// Permission bits 0777 of POSIX; without them those of a new file.
  std::optional<uint32_t> permissions;
  /// Nobody may write it. Not for directories.
  bool isReadOnly = false;
};

/// A directory that files and directories are put into. Below it no link is followed, whoever puts
/// one there meanwhile. Names are WTF-8 without separators; functions return an error number, or 0.
/// For one thread at once.
class OutputTree {
 public:
  using Names = std::vector<std::string>;

  /// Whether the system can store only names that Windows can.
  static const bool kStoresWindowsNamesOnly;

  OutputTree();
  ~OutputTree();
  OutputTree(const OutputTree&) = delete;
  OutputTree& operator=(const OutputTree&) = delete;

  /// Makes the directory where it is missing, with its parents. Links that lead to it are followed.
  int Open(const std::filesystem::path& root);
  /// Makes the directory, and what is missing of its parents. One that exists is fine, and stays as
  /// it is. A new one is open to nobody whom `attributes` keep out, but its owner may enter and
  /// write it until `FinishDirectories`.
  int MakeDirectory(const Names& names, const OutputAttributes& attributes);
  /// Gives the directories that `MakeDirectory` has made their permissions (off Windows) and times,
  /// once nothing is put into them any more. The next `Open` does so, too.
  int FinishDirectories();

  /// Begins a file, and makes its directory. It has a name of its own until `Commit`; what is not
  /// committed is removed by the next `Create` and by the destructor. Nobody whom `permissions`
  /// keep out may open it.
  int Create(const Names& names, std::optional<uint32_t> permissions);
  int Write(const void* bytes, size_t count);
  /// Gives the file its attributes and its name, in place of a file that has it.
  int Commit(const OutputAttributes& attributes);
  /// Removes the file that was begun, if any.
  void Discard();

  /// Brings what was put in to the disk, as far as the system can do so for all of it at once:
  /// Linux, and Windows for administrators, for all that is on the root's volume.
  int Sync();

 private:
  struct Implementation;
  std::unique_ptr<Implementation> implementation_;
};

}  // namespace file_system
