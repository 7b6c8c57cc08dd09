#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "libZel/string.h"

/// Long work of this process, for whoever wants to show how far it is. Work that ends without
/// `Finish` has failed.
///
/// Threads: one object is used by one thread at a time; reports may be asked for at any time.
class Progress {
 public:
  enum class Kind { kSend, kReceive, kPack, kExtract };

  /// `name` is the path of the file sent, received, packed into or extracted; `totalBytes` is 0
  /// when it is not known.
  Progress(Kind kind, const ZelString& name, uint64_t totalBytes);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  void SetTotal(uint64_t totalBytes);
  /// Costs one addition.
  void Add(uint64_t bytes);
  /// `failure` is empty on success, else a sentence. The first call counts.
  void Finish(const ZelString& failure);

  struct Report {
    uint64_t id = 0;  ///< counts up from 1 in the order of the beginnings
    Kind kind = Kind::kSend;
    ZelString name;
    uint64_t doneBytes = 0;
    uint64_t totalBytes = 0;
    uint64_t elapsedMs = 0;
    bool isRunning = true;
    ZelString failure;  ///< empty on success and while it runs
  };
  /// What runs, and what has ended last (up to 64), by `id`.
  static std::vector<Report> Reports();

 private:
  struct Work;
  std::shared_ptr<Work> work_;
};
