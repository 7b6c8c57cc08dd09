#pragma once

#include <windows.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "agent/proxy/desktop.h"
#include "agent/proxy/platform/windows/handles.h"
#include "agent/proxy/platform/windows/image_loading.h"

/// A dialog on the screen. Everything of it belongs to the desktop's thread, which has COM.
class DesktopDialog {
 public:
  /// Called at most once, from within the window's procedure: the dialog is to be taken down, and
  /// this is how it ended. It must not be destroyed there.
  using Finished = std::function<void(ButtonId button)>;

  /// Makes the window, not yet visible, `cascade` steps away from the middle of the monitor that
  /// has the pointer. Throws std::runtime_error.
  DesktopDialog(const DialogContent& content, const DesktopTexts& texts,
                std::optional<Picture> picture, int cascade, Finished finished);
  ~DesktopDialog();
  DesktopDialog(const DesktopDialog&) = delete;
  DesktopDialog& operator=(const DesktopDialog&) = delete;

  /// Shows it; when `above` is not null below that window, one of those that stay above all others,
  /// and without the input.
  void Show(HWND above);

  /// In front of its like, with the input.
  void ComeToTheFront();

  /// While it is covered by a locked screen nothing answers it, whoever sends it.
  void SetCovered(bool isCovered);

  /// Whether `message`, one of the queue, is for this dialog and needs no further handling: input
  /// that came too early, or a key that moves the focus.
  bool Takes(MSG& message);

 private:
  static LRESULT CALLBACK FrameProcedure(HWND, UINT, WPARAM, LPARAM);
  static LRESULT CALLBACK ChildProcedure(HWND, UINT, WPARAM, LPARAM, UINT_PTR, DWORD_PTR);

  struct Button {
    ButtonId id;
    std::wstring label;
    HWND window;
  };
  // In pixels of the monitor.
  struct Layout {
    int width;
    int contentHeight;
    int footerHeight;
    RECT picture;
    RECT text;
    bool textScrolls;
  };

  void MakeWindow(const RECT& place);
  void MakeAnew();
  void MakeFrame(const RECT& place);
  void MakeChildren();
  HWND MakeChild(const wchar_t* windowClass, const std::wstring& text, DWORD style);
  std::optional<LRESULT> OnFrameMessage(UINT message, WPARAM wParam, LPARAM lParam);
  std::optional<LRESULT> OnChildMessage(HWND child, UINT message, WPARAM wParam, LPARAM lParam);
  std::optional<LRESULT> OnTextMessage(UINT message, WPARAM wParam);
  void OnActivate(WPARAM how);
  void OnCommand(HWND child, WORD notification);
  void OnTick();

  bool IsDeafToPointer() const;
  bool IsDeafToKeys() const;
  const Button* ButtonOf(HWND window) const;
  HWND FirstFocus() const;
  // For SetWindowPos: above all windows, or only above the usual ones.
  HWND Height() const;
  void Press(HWND button);
  void Finish(ButtonId button);

  // In dialog_layout.cpp.
  void SetDpi(UINT dpi);
  void LoadIconOrPicture();
  Layout Measure();
  int TextHeight(int width);
  int FooterWidth() const;
  int ButtonWidth(const Button& button) const;
  void Arrange();
  void ArrangeFooter();
  void PlaceInTheMiddle(int cascade);
  void PlaceInside(LONG x, LONG y);
  void Paint();
  void PaintPicture(HDC context, int clientWidth) const;
  int Pixels(int logical) const;

  const DialogContent content_;
  const DesktopTexts texts_;
  const std::optional<Picture> picture_;
  const Finished finished_;
  const std::wstring text_;

  HWND frame_ = nullptr;
  HWND textControl_ = nullptr;
  HWND timeLabel_ = nullptr;
  HWND focus_ = nullptr;
  std::vector<Button> buttons_;
  UINT dpi_ = 96;
  GdiFont font_;
  IconHandle icon_;
  GdiBitmap bitmap_;
  SIZE pictureSize_{};
  Layout layout_{};

  bool isShown_ = false;
  bool isFinished_ = false;
  bool isCovered_ = false;
  ULONGLONG deafToPointerUntil_ = 0;
  ULONGLONG deafToKeysUntil_ = 0;
  ULONGLONG deadline_ = 0;
};
