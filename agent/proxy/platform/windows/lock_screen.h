#pragma once

#include <windows.h>

#include <memory>
#include <string>
#include <vector>

#include "agent/proxy/platform/windows/lock_painting.h"

/// Covers every monitor and swallows keyboard and pointer for as long as it lives. What the system
/// keeps for itself goes past it: Ctrl+Alt+Del and Win+L, whose screens come before this one. One
/// at a time, on a thread that never stops taking messages: the system leaves out hooks that do not
/// answer at once.
class LockScreen {
 public:
  /// Its windows belong to `owner`, a window of this thread, whose timer `timer` it sets: for each
  /// such message of it `OnTimer` is to be called. Throws std::runtime_error, and leaves nothing
  /// behind, when it cannot cover the screen or hold the input.
  LockScreen(HWND owner, UINT_PTR timer, LockFace face);
  ~LockScreen();
  LockScreen(const LockScreen&) = delete;
  LockScreen& operator=(const LockScreen&) = delete;

  void SetText(std::wstring title, std::wstring text);
  /// Gets in front of everything again, and covers monitors that were added or moved. Throws
  /// std::runtime_error when one cannot be covered; the next time it is tried again.
  void OnTimer();
  /// The undermost of its windows, for what is to stay below.
  HWND Bottom() const;

 private:
  struct Cover {
    HWND window;
    RECT place;
  };
  struct RemoveHook {
    void operator()(HHOOK hook) const { UnhookWindowsHookEx(hook); }
  };
  using Hook = std::unique_ptr<std::remove_pointer_t<HHOOK>, RemoveHook>;

  static LRESULT CALLBACK WindowProcedure(HWND, UINT, WPARAM, LPARAM);
  LRESULT OnMessage(HWND window, UINT message, WPARAM wParam, LPARAM lParam);

  void CoverMonitors();
  void MakeCover(const RECT& place);
  void DestroyCovers();
  bool SetHooks();
  void ComeToTheFront();
  void Announce();
  void Paint(HWND window);

  const HWND owner_;
  const UINT_PTR timer_;
  LockPainter painter_;
  std::vector<Cover> covers_;
  Hook keyboard_;
  Hook pointer_;
  unsigned ticks_ = 0;
};
