#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>

#include "agent/libZel/outcome.h"

/// A ZIP archive that is made of a directory. For one thread at once. Throws only for want of
/// memory.
class ZipWriter {
 public:
  /// Told how many bytes have been read since the last call, and how many there are altogether.
  using Step = std::function<void(uint64_t stepBytes, uint64_t totalBytes)>;

  ZipWriter();
  ~ZipWriter();
  ZipWriter(const ZipWriter&) = delete;
  ZipWriter& operator=(const ZipWriter&) = delete;

  /// Makes the archive beside its final name. `level` is the effort from 0 (stored) to 9. Once
  /// only.
  Outcome Pack(const std::filesystem::path& directory, const std::filesystem::path& archive,
               int level, const Step& step);
  /// Whether `Pack` succeeded.
  bool IsComplete() const;
  /// Gives a complete archive its name, in place of a file that has it. Returns an error number, or
  /// 0.
  int Commit();

 private:
  struct Implementation;
  std::unique_ptr<Implementation> implementation_;
};
