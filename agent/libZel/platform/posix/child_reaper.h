#pragma once

#include <sys/types.h>

#include <list>
#include <mutex>
#include <thread>

#include "agent/libZel/platform/posix/unique_fd.h"

/// Takes leave of the programs that this library has started, so that none of them stays behind as
/// a zombie. It waits for these children alone: others belong to whoever started them. Its thread
/// needs no memory, so that nothing can be thrown there.
///
/// Threads: `Watch` may be called by any number at once.
class ChildReaper {
 public:
  /// The one of the process. Started when it is first asked for, stopped when the library is
  /// unloaded. Throws std::system_error.
  static ChildReaper& Instance();

  /// Takes over a child of this process. A child that cannot be watched is looked at from time to
  /// time; without the memory to remember it, it stays a zombie.
  void Watch(pid_t child) noexcept;

  ~ChildReaper();
  ChildReaper(const ChildReaper&) = delete;
  ChildReaper& operator=(const ChildReaper&) = delete;

 private:
  struct Child {
    pid_t id;
    /// Tells `events_` when the child ends; none where the system has no such thing.
    UniqueFd descriptor;
  };

  ChildReaper();
  void Wake() const;
  void Run();
  void WaitForNews(const std::list<Child>& children) const;
  UniqueFd OpenWatched(pid_t child) const;
  void Forget(const Child& child) const;

  const UniqueFd wakeUp_;
  const UniqueFd events_;
  std::mutex mutex_;
  std::list<Child> arrived_;
  bool isStopping_ = false;
  std::thread thread_;
};
