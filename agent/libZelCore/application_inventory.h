#pragma once

#include <cstdint>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "libZelCore.h"

/// An application that a file belongs to, from a section of the inventory.
struct KnownApplication {
  std::string name;  ///< the section
  std::string file;
  std::vector<uint64_t> sizes;  ///< bytes; empty: any
  std::string publisher;
  std::string version;
};

/// What an inventory's text says.
struct InventoryText {
  std::vector<KnownApplication> applications;
  std::vector<std::string> warnings;  ///< what was passed over, each named with its line or section
};

/// Reads the text of an inventory, see docs/configuration.md. Sections without a file, or with a
/// size that is none, are passed over.
InventoryText ParseInventory(std::string_view text);

/// Tells which applications files belong to. The inventory is a file that may change or be missing
/// at any time; it is read when it is asked for and has another size or time than before.
///
/// Threads: any number may ask at once.
class ApplicationInventory {
 public:
  explicit ApplicationInventory(std::filesystem::path file);

  /// The application of the file name (the letters A to Z in either case) and the lowest 32 bits
  /// of the size; one that names the size goes before one that takes any.
  std::optional<KnownApplication> Find(std::string_view fileName, uint32_t sizeBytes);

  /// The action "GetApplicationInfo": `FileName`, `FileSize` (Int32, taken as unsigned) and
  /// `FileChecksum`, which is not looked at. Returns 0, and `Name` with what is known of
  /// `Publisher` and `Version`; or 1 and nothing.
  uint32_t Answer(ZelContainer* parameters);

 private:
  /// What tells one state of the file from another; equal for a missing one.
  struct FileState {
    bool isThere = false;
    uintmax_t sizeBytes = 0;
    std::filesystem::file_time_type time{};
    bool operator==(const FileState&) const = default;
  };

  FileState State() const;
  void Refresh();

  const std::filesystem::path file_;
  std::mutex mutex_;
  FileState state_;
  std::vector<KnownApplication> applications_;
};
