#pragma once

#include <windows.h>

#include <string>

/// What a locked screen shows.
struct LockFace {
  std::wstring title;
  std::wstring text;
  bool isRightToLeft = false;
};

/// Paints all of `area` at `dpi`. Text that does not fit is made smaller, then cut.
void PaintLock(HDC context, const RECT& area, UINT dpi, const LockFace& face);
