#pragma once

#include <windows.h>

#include <map>
#include <string>
#include <tuple>

#include "agent/proxy/platform/windows/handles.h"

/// What a locked screen shows.
struct LockFace {
  std::wstring title;
  std::wstring text;
  bool isRightToLeft = false;
};

/// Paints locked screens. How large a text can be is measured once for each size of a monitor, as
/// the thread that paints also holds the input, which must not wait.
class LockPainter {
 public:
  explicit LockPainter(LockFace face);

  void SetFace(LockFace face);
  const LockFace& Face() const { return face_; }

  /// Paints all of `area` at `dpi`. Text that does not fit is made smaller, then cut.
  void Paint(HDC context, const RECT& area, UINT dpi);

 private:
  struct Fonts {
    GdiFont title;
    GdiFont text;
    int titleHeight = 0;
    int textHeight = 0;
  };

  const Fonts& FittingFonts(HDC context, UINT dpi, int width, int room, UINT flags);

  LockFace face_;
  // By dots per inch, the width and the height that the texts may take.
  std::map<std::tuple<UINT, int, int>, Fonts> fonts_;
};
