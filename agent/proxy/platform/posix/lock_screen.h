#pragma once

#include <gdk/gdk.h>
#include <sigc++/sigc++.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

class LockWindow;

/// Covers all monitors and holds keyboard and pointer. On the desktop's thread alone.
///
/// The windows are not managed by the window manager, have the class "zelproxy" and the name
/// "zelproxy lock". The input is held for the root window, which is always there, whatever becomes
/// of these windows.
class LockScreen : public sigc::trackable {
 public:
  using Log = std::function<void(const std::string& line)>;
  explicit LockScreen(Log log);
  ~LockScreen();
  LockScreen(const LockScreen&) = delete;
  LockScreen& operator=(const LockScreen&) = delete;

  /// False when another program holds the input at this moment. Then, and when it throws, the
  /// screen and the input are free. Locked already: does nothing, and the texts stay.
  bool TryLock(const std::string& title, const std::string& text);
  bool IsLocked() const { return isLocked_; }
  void SetText(const std::string& title, const std::string& text);
  void Unlock();

 private:
  void Begin();
  bool HoldInput();
  void LetInputGo();
  void CoverMonitors();
  bool Guard();
  void Raise();
  void RaiseSoon();
  bool IsOwn(unsigned long window) const;
  static GdkFilterReturn Watch(GdkXEvent* event, GdkEvent* unused, gpointer self);

  std::string title_;
  std::string text_;
  const Log log_;
  bool isLocked_ = false;
  bool holdsInput_ = false;
  std::vector<std::unique_ptr<LockWindow>> windows_;
  std::vector<sigc::connection> connections_;
  sigc::connection raising_;
  std::chrono::steady_clock::time_point lastRaise_;
};
