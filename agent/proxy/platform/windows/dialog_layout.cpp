// How a dialog is laid out and painted: on white the picture and beside it the text; below, on
// grey, the time that is left and the buttons.

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "agent/proxy/platform/windows/dialog_window.h"
#include "agent/proxy/platform/windows/window_text.h"

namespace {

// Logical pixels, of a display with 96 dots per inch.
constexpr int kMargin = 20;
constexpr int kPictureGap = 16;
constexpr int kIconSide = 32;
constexpr int kMinTextWidth = 260;
constexpr int kMaxTextWidth = 440;
constexpr int kMaxLongTextWidth = 600;
constexpr int kFooterMargin = 12;
constexpr int kButtonGap = 8;
constexpr int kButtonHeight = 26;
constexpr int kMinButtonWidth = 90;
constexpr int kMaxButtonWidth = 220;
constexpr int kButtonPadding = 14;
constexpr int kMaxTimeWidth = 280;
constexpr int kCascadeStep = 28;
constexpr int kCascadeSteps = 8;

// With more lines than that a text is a long one.
constexpr int kManyLines = 12;
// Of the monitor's height and width, what text and window take at most.
constexpr int kMaxTextHeightPercent = 55;
constexpr int kMaxWidthPercent = 90;
// The control keeps it free on either side of its lines.
constexpr int kEditSlack = 6;

// For IDI_QUESTION and IDI_INFORMATION, as numbers.
constexpr WORD kQuestionIcon = 32514;
constexpr WORD kInformationIcon = 32516;

RECT WorkAreaOf(HWND window) {
  MONITORINFO monitor{};
  monitor.cbSize = sizeof monitor;
  GetMonitorInfoW(MonitorFromWindow(window, MONITOR_DEFAULTTOPRIMARY), &monitor);
  return monitor.rcWork;
}

// Of 32 bits a pixel, the first row on top.
GdiBitmap MakeBitmap(const Picture& picture) {
  BITMAPINFO info{};
  info.bmiHeader.biSize = sizeof info.bmiHeader;
  info.bmiHeader.biWidth = static_cast<LONG>(picture.width);
  info.bmiHeader.biHeight = -static_cast<LONG>(picture.height);
  info.bmiHeader.biPlanes = 1;
  info.bmiHeader.biBitCount = 32;
  info.bmiHeader.biCompression = BI_RGB;
  void* bits = nullptr;
  GdiBitmap bitmap(CreateDIBSection(nullptr, &info, DIB_RGB_COLORS, &bits, nullptr, 0));
  if (bitmap) std::copy(picture.pixels.begin(), picture.pixels.end(), static_cast<uint8_t*>(bits));
  return bitmap;
}

// The width of the longest line of `text` when nothing is wrapped.
int NaturalWidth(HFONT font, const std::wstring& text) {
  const HDC context = GetDC(nullptr);
  const HGDIOBJ before = SelectObject(context, font);
  RECT bounds{};
  DrawTextW(context, text.c_str(), static_cast<int>(text.size()), &bounds,
            DT_CALCRECT | DT_NOPREFIX | DT_EXPANDTABS | DT_EDITCONTROL);
  SelectObject(context, before);
  ReleaseDC(nullptr, context);
  return bounds.right;
}

}  // namespace

int DesktopDialog::Pixels(int logical) const {
  return Scaled(logical, dpi_);
}

void DesktopDialog::SetDpi(UINT dpi) {
  dpi_ = dpi;
  GdiFont font(MessageFont(dpi));
  if (!font) throw std::runtime_error("the system has no font for dialogs");
  const auto set = [&](HWND child) {
    SendMessageW(child, WM_SETFONT, reinterpret_cast<WPARAM>(font.get()), FALSE);
  };
  for (const Button& button : buttons_) set(button.window);
  set(textControl_);
  if (timeLabel_) set(timeLabel_);
  font_ = std::move(font);

  LoadIconOrPicture();
  layout_ = Measure();
  Arrange();
  InvalidateRect(frame_, nullptr, TRUE);
}

void DesktopDialog::LoadIconOrPicture() {
  if (picture_) {
    pictureSize_ = {std::max(1, Pixels(static_cast<int>(picture_->shownWidth))),
                    std::max(1, Pixels(static_cast<int>(picture_->shownHeight)))};
    bitmap_ = MakeBitmap(Resized(*picture_, static_cast<unsigned>(pictureSize_.cx),
                                 static_cast<unsigned>(pictureSize_.cy)));
    return;
  }
  pictureSize_ = {Pixels(kIconSide), Pixels(kIconSide)};
  const WORD which = buttons_.size() == 2 ? kQuestionIcon : kInformationIcon;
  icon_.reset(static_cast<HICON>(LoadImageW(nullptr, MAKEINTRESOURCEW(which), IMAGE_ICON,
                                            pictureSize_.cx, pictureSize_.cy, 0)));
}

DesktopDialog::Layout DesktopDialog::Measure() {
  const RECT area = WorkAreaOf(frame_);
  const int margin = Pixels(kMargin);
  const int left = margin + pictureSize_.cx + Pixels(kPictureGap);
  const int widest = (area.right - area.left) * kMaxWidthPercent / 100 - left - margin;
  const int tallest = (area.bottom - area.top) * kMaxTextHeightPercent / 100;

  const int natural = NaturalWidth(font_.get(), text_) + Pixels(kEditSlack);
  const int least = std::max(Pixels(kMinTextWidth), FooterWidth() - left - margin);
  int width = std::min(std::max(least, std::min(natural, Pixels(kMaxTextWidth))), widest);
  int height = TextHeight(width);
  if (height > kManyLines * LineHeight(font_.get())) {
    width = std::min(std::max(least, std::min(natural, Pixels(kMaxLongTextWidth))), widest);
    height = TextHeight(width);
  }

  Layout layout{};
  layout.textScrolls = height > tallest;
  height = std::min(height, tallest);
  const int rowHeight = std::max(height, static_cast<int>(pictureSize_.cy));
  // A short text stands beside the middle of the picture.
  const int textTop = margin + (rowHeight - height) / 2;
  layout.picture = {margin, margin, margin + pictureSize_.cx, margin + pictureSize_.cy};
  layout.text = {left, textTop, left + width, textTop + height};
  layout.width = left + width + margin;
  layout.contentHeight = rowHeight + 2 * margin;
  const bool hasFooter = !buttons_.empty() || timeLabel_;
  layout.footerHeight = hasFooter ? Pixels(kButtonHeight) + 2 * Pixels(kFooterMargin) : 0;
  return layout;
}

// The control itself knows best where it wraps.
int DesktopDialog::TextHeight(int width) {
  ShowScrollBar(textControl_, SB_VERT, FALSE);
  const int lineHeight = LineHeight(font_.get());
  SetWindowPos(textControl_, nullptr, 0, 0, width, 4 * lineHeight,
               SWP_NOMOVE | SWP_NOZORDER | SWP_NOACTIVATE);
  const auto lines = static_cast<int>(SendMessageW(textControl_, EM_GETLINECOUNT, 0, 0));
  return std::max(1, lines) * lineHeight + 2;
}

int DesktopDialog::ButtonWidth(const Button& button) const {
  const int natural = TextWidth(font_.get(), button.label) + 2 * Pixels(kButtonPadding);
  return std::clamp(natural, Pixels(kMinButtonWidth), Pixels(kMaxButtonWidth));
}

// Margins included.
int DesktopDialog::FooterWidth() const {
  int width = 2 * Pixels(kMargin);
  for (const Button& button : buttons_) width += ButtonWidth(button) + Pixels(kButtonGap);
  if (timeLabel_) {
    const std::wstring longest = TimeLeft(LineForWindow(texts_.timeLeft), content_.timeoutS);
    width += std::min(TextWidth(font_.get(), longest), Pixels(kMaxTimeWidth)) + Pixels(kButtonGap);
  }
  return width;
}

void DesktopDialog::Arrange() {
  RECT outer{0, 0, layout_.width, layout_.contentHeight + layout_.footerHeight};
  AdjustWindowRectExForDpi(&outer, static_cast<DWORD>(GetWindowLongPtrW(frame_, GWL_STYLE)), FALSE,
                           static_cast<DWORD>(GetWindowLongPtrW(frame_, GWL_EXSTYLE)), dpi_);
  SetWindowPos(frame_, nullptr, 0, 0, outer.right - outer.left, outer.bottom - outer.top,
               SWP_NOMOVE | SWP_NOZORDER | SWP_NOACTIVATE);
  const RECT& text = layout_.text;
  SetWindowPos(textControl_, nullptr, text.left, text.top, text.right - text.left,
               text.bottom - text.top, SWP_NOZORDER | SWP_NOACTIVATE);
  ShowScrollBar(textControl_, SB_VERT, layout_.textScrolls);
  ArrangeFooter();
}

// The buttons at the end of the row, the time before them.
void DesktopDialog::ArrangeFooter() {
  const int margin = Pixels(kMargin);
  const int top = layout_.contentHeight + Pixels(kFooterMargin);
  const int height = Pixels(kButtonHeight);
  int right = layout_.width - margin;
  for (auto button = buttons_.rbegin(); button != buttons_.rend(); ++button) {
    const int width = ButtonWidth(*button);
    const int room = width - Pixels(kButtonPadding);
    const std::wstring label = Fitted(font_.get(), button->label, room);
    SetWindowTextW(button->window, WithoutMnemonic(label).c_str());
    // Who listens gets all of it.
    if (label != button->label) SetAccessibleName(button->window, button->label);
    SetWindowPos(button->window, nullptr, right - width, top, width, height,
                 SWP_NOZORDER | SWP_NOACTIVATE);
    right -= width + Pixels(kButtonGap);
  }
  if (!timeLabel_) return;
  SetWindowPos(timeLabel_, nullptr, margin, top, std::max(0, right - margin), height,
               SWP_NOZORDER | SWP_NOACTIVATE);
}

void DesktopDialog::PlaceInTheMiddle(int cascade) {
  const RECT area = WorkAreaOf(frame_);
  RECT window{};
  GetWindowRect(frame_, &window);
  const int offset = Pixels(kCascadeStep) * (cascade % kCascadeSteps);
  const LONG x = area.left + (area.right - area.left - (window.right - window.left)) / 2 + offset;
  const LONG y = area.top + (area.bottom - area.top - (window.bottom - window.top)) / 2 + offset;
  PlaceInside(x, y);
}

// As near to it as all of the window can be seen; should it be too large, its beginning.
void DesktopDialog::PlaceInside(LONG x, LONG y) {
  const RECT area = WorkAreaOf(frame_);
  RECT window{};
  GetWindowRect(frame_, &window);
  const LONG lastX = area.right - (window.right - window.left);
  const LONG lastY = area.bottom - (window.bottom - window.top);
  SetWindowPos(frame_, nullptr, std::max(area.left, std::min(x, lastX)),
               std::max(area.top, std::min(y, lastY)), 0, 0,
               SWP_NOSIZE | SWP_NOZORDER | SWP_NOACTIVATE);
}

void DesktopDialog::Paint() {
  const WindowPainting painting(frame_);
  const HDC context = painting.Context();
  RECT client{};
  GetClientRect(frame_, &client);
  RECT content = client;
  content.bottom = layout_.contentHeight;
  FillRect(context, &content, GetSysColorBrush(COLOR_WINDOW));
  RECT footer = client;
  footer.top = layout_.contentHeight;
  FillRect(context, &footer, GetSysColorBrush(COLOR_BTNFACE));
  if (layout_.footerHeight > 0) {
    footer.bottom = footer.top + 1;
    FillRect(context, &footer, GetSysColorBrush(COLOR_3DLIGHT));
  }
  PaintPicture(context, client.right);
}

void DesktopDialog::PaintPicture(HDC context, int clientWidth) const {
  // A mirrored window shows it at the other side, but not reversed.
  const DWORD layoutBefore = SetLayout(context, 0);
  const RECT& place = layout_.picture;
  const int width = pictureSize_.cx;
  const int height = pictureSize_.cy;
  const int x = texts_.isRightToLeft ? clientWidth - place.right : place.left;
  if (bitmap_) {
    const MemoryContext memory(CreateCompatibleDC(context));
    const HGDIOBJ before = SelectObject(memory.get(), bitmap_.get());
    const BLENDFUNCTION blending{AC_SRC_OVER, 0, 255, AC_SRC_ALPHA};
    GdiAlphaBlend(context, x, place.top, width, height, memory.get(), 0, 0, width, height,
                  blending);
    SelectObject(memory.get(), before);
  } else if (icon_) {
    DrawIconEx(context, x, place.top, icon_.get(), width, height, 0, nullptr, DI_NORMAL);
  }
  SetLayout(context, layoutBefore);
}
