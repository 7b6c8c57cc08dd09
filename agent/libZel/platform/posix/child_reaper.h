#pragma once

#include <sys/types.h>

#include <mutex>
#include <thread>
#include <vector>

/// Takes leave of the programs that this library has started, so that none of them stays behind as
/// a zombie. It waits for these children alone: others belong to whoever started them.
///
/// Threads: `Watch` may be called by any number at once.
class ChildReaper {
 public:
  /// The one of the process. Started when it is first asked for, stopped when the library is
  /// unloaded. Throws std::system_error.
  static ChildReaper& Instance();

  /// Takes over a child of this process. Never fails: a child that cannot be watched is looked at
  /// from time to time.
  void Watch(pid_t child) noexcept;

  ~ChildReaper();
  ChildReaper(const ChildReaper&) = delete;
  ChildReaper& operator=(const ChildReaper&) = delete;

 private:
  struct Child {
    pid_t id;
    /// Becomes readable when the child ends; -1 where the system has no such thing.
    int descriptor;
  };

  ChildReaper();
  void Wake() const;
  void Run();
  void WaitForNews(const std::vector<Child>& children) const;

  const int wakeUp_;
  std::mutex mutex_;
  std::vector<Child> arrived_;
  bool isStopping_ = false;
  std::thread thread_;
};
