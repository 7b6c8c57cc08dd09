#pragma once

#include <windows.h>

#include <objbase.h>

#include <memory>
#include <type_traits>

// Owners of what the system's calls return.

struct DeleteGdiObject {
  void operator()(HGDIOBJ object) const { DeleteObject(object); }
};
using GdiFont = std::unique_ptr<std::remove_pointer_t<HFONT>, DeleteGdiObject>;
using GdiBitmap = std::unique_ptr<std::remove_pointer_t<HBITMAP>, DeleteGdiObject>;
using GdiBrush = std::unique_ptr<std::remove_pointer_t<HBRUSH>, DeleteGdiObject>;
using GdiRegion = std::unique_ptr<std::remove_pointer_t<HRGN>, DeleteGdiObject>;
using GdiPen = std::unique_ptr<std::remove_pointer_t<HPEN>, DeleteGdiObject>;

struct DeleteContext {
  void operator()(HDC context) const { DeleteDC(context); }
};
/// Of CreateCompatibleDC, with no object selected into it that outlives it.
using MemoryContext = std::unique_ptr<std::remove_pointer_t<HDC>, DeleteContext>;

/// The painting of a window's WM_PAINT.
class WindowPainting {
 public:
  explicit WindowPainting(HWND window)
      : window_(window), context_(BeginPaint(window, &painting_)) {}
  ~WindowPainting() { EndPaint(window_, &painting_); }
  WindowPainting(const WindowPainting&) = delete;
  WindowPainting& operator=(const WindowPainting&) = delete;

  HDC Context() const { return context_; }

 private:
  HWND window_;
  PAINTSTRUCT painting_{};
  HDC context_;
};

struct DestroyIconOf {
  void operator()(HICON icon) const { DestroyIcon(icon); }
};
using IconHandle = std::unique_ptr<std::remove_pointer_t<HICON>, DestroyIconOf>;

/// A reference to an object of COM.
template <typename T>
class ComPointer {
 public:
  ComPointer() = default;
  ~ComPointer() {
    if (pointer_) pointer_->Release();
  }
  ComPointer(const ComPointer&) = delete;
  ComPointer& operator=(const ComPointer&) = delete;

  T* operator->() const { return pointer_; }
  T* Get() const { return pointer_; }
  /// For calls that hand out an object as a typed or an untyped pointer; the first time only.
  T** Put() { return &pointer_; }
  void** Receive() { return reinterpret_cast<void**>(&pointer_); }

 private:
  T* pointer_ = nullptr;
};

/// COM on this thread for as long as this lives. A thread that has it already, of either kind,
/// keeps it.
class ComOnThread {
 public:
  explicit ComOnThread(DWORD kind) : isMine_(SUCCEEDED(CoInitializeEx(nullptr, kind))) {}
  ~ComOnThread() {
    if (isMine_) CoUninitialize();
  }
  ComOnThread(const ComOnThread&) = delete;
  ComOnThread& operator=(const ComOnThread&) = delete;

 private:
  bool isMine_;
};
