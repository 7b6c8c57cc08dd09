#include "agent/proxy/platform/windows/lock_painting.h"

#include <algorithm>
#include <utility>

#include "agent/proxy/platform/windows/window_text.h"

namespace {

constexpr COLORREF kTopColour = RGB(31, 45, 64);
constexpr COLORREF kBottomColour = RGB(14, 20, 31);
constexpr COLORREF kTitleColour = RGB(245, 248, 252);
constexpr COLORREF kTextColour = RGB(190, 202, 218);
constexpr COLORREF kSignColour = RGB(122, 162, 212);

// Of the system's message font, in percent; what does not fit gets the next smaller pair.
struct FontSizes {
  int title;
  int text;
};
constexpr FontSizes kFontSizes[] = {{300, 175}, {240, 145}, {180, 115}, {130, 100}};

// Logical pixels.
constexpr int kSignSide = 72;
constexpr int kGap = 28;
constexpr int kTitleGap = 18;
constexpr int kMaxTextWidth = 860;
// Of the monitor, what sign and texts take at most.
constexpr int kMaxWidthPercent = 80;
constexpr int kMaxHeightPercent = 86;
// The sign is painted that many times larger and then made smaller, which smooths its edges.
constexpr int kSmoothing = 4;

constexpr UINT kTextFlags = DT_CENTER | DT_WORDBREAK | DT_NOPREFIX | DT_EDITCONTROL | DT_EXPANDTABS;

// A second surface, so that nothing flickers.
class Canvas {
 public:
  Canvas(HDC target, int width, int height)
      : bitmap_(CreateCompatibleBitmap(target, width, height)),
        context_(CreateCompatibleDC(target)),
        before_(SelectObject(context_.get(), bitmap_.get())) {}
  ~Canvas() { SelectObject(context_.get(), before_); }
  Canvas(const Canvas&) = delete;
  Canvas& operator=(const Canvas&) = delete;

  HDC Context() const { return context_.get(); }

 private:
  GdiBitmap bitmap_;
  MemoryContext context_;
  HGDIOBJ before_;
};

TRIVERTEX Vertex(LONG x, LONG y, COLORREF colour) {
  const auto wide = [](BYTE part) { return static_cast<COLOR16>(part << 8); };
  return {x, y, wide(GetRValue(colour)), wide(GetGValue(colour)), wide(GetBValue(colour)), 0};
}

void FillBackground(HDC context, int width, int height) {
  TRIVERTEX corners[] = {Vertex(0, 0, kTopColour), Vertex(width, height, kBottomColour)};
  GRADIENT_RECT whole{0, 1};
  GdiGradientFill(context, corners, 2, &whole, 1, GRADIENT_FILL_RECT_V);
}

// A padlock: a bow and a body with a keyhole, `side` pixels high.
GdiRegion MakeSign(int side) {
  const auto part = [&](int left, int top, int right, int bottom, int diameter) {
    const auto at = [&](int percent) { return side * percent / 100; };
    return GdiRegion(
        CreateRoundRectRgn(at(left), at(top), at(right), at(bottom), at(diameter), at(diameter)));
  };
  const GdiRegion insideOfBow = part(36, 12, 64, 84, 28);
  const GdiRegion body = part(16, 44, 84, 98, 12);
  const GdiRegion hole = part(44, 60, 56, 72, 12);
  const GdiRegion slot = part(47, 66, 53, 83, 6);

  GdiRegion sign = part(28, 4, 72, 84, 44);
  CombineRgn(sign.get(), sign.get(), insideOfBow.get(), RGN_DIFF);
  CombineRgn(sign.get(), sign.get(), body.get(), RGN_OR);
  CombineRgn(sign.get(), sign.get(), hole.get(), RGN_DIFF);
  CombineRgn(sign.get(), sign.get(), slot.get(), RGN_DIFF);
  return sign;
}

// Over an enlarged copy of what is there, so that the background stays as it is.
void PaintSign(HDC context, int x, int y, int side) {
  const int large = side * kSmoothing;
  const Canvas canvas(context, large, large);
  SetStretchBltMode(canvas.Context(), COLORONCOLOR);
  StretchBlt(canvas.Context(), 0, 0, large, large, context, x, y, side, side, SRCCOPY);
  const GdiBrush colour(CreateSolidBrush(kSignColour));
  FillRgn(canvas.Context(), MakeSign(large).get(), colour.get());
  SetStretchBltMode(context, HALFTONE);
  SetBrushOrgEx(context, 0, 0, nullptr);
  StretchBlt(context, x, y, side, side, canvas.Context(), 0, 0, large, large, SRCCOPY);
}

int TextHeight(HDC context, HFONT font, const std::wstring& text, int width, UINT flags) {
  if (text.empty()) return 0;
  const HGDIOBJ before = SelectObject(context, font);
  RECT bounds{0, 0, width, 0};
  DrawTextW(context, text.c_str(), static_cast<int>(text.size()), &bounds, flags | DT_CALCRECT);
  SelectObject(context, before);
  return bounds.bottom;
}

void PaintText(HDC context, HFONT font, const std::wstring& text, RECT place, COLORREF colour,
               UINT flags) {
  const HGDIOBJ before = SelectObject(context, font);
  SetBkMode(context, TRANSPARENT);
  SetTextColor(context, colour);
  DrawTextW(context, text.c_str(), static_cast<int>(text.size()), &place, flags | DT_END_ELLIPSIS);
  SelectObject(context, before);
}

}  // namespace

LockPainter::LockPainter(LockFace face) : face_(std::move(face)) {}

void LockPainter::SetFace(LockFace face) {
  face_ = std::move(face);
  fonts_.clear();
}

// The largest ones with which title and text are no higher than `room`, or the smallest.
const LockPainter::Fonts& LockPainter::FittingFonts(HDC context, UINT dpi, int width, int room,
                                                    UINT flags) {
  const auto [place, isNew] = fonts_.try_emplace({dpi, width, room});
  Fonts& fonts = place->second;
  if (!isNew) return fonts;
  for (const FontSizes& sizes : kFontSizes) {
    fonts.title.reset(MessageFont(dpi, sizes.title));
    fonts.text.reset(MessageFont(dpi, sizes.text));
    fonts.titleHeight = TextHeight(context, fonts.title.get(), face_.title, width, flags);
    fonts.textHeight = TextHeight(context, fonts.text.get(), face_.text, width, flags);
    if (fonts.titleHeight + fonts.textHeight <= room) break;
  }
  fonts.titleHeight = std::min(fonts.titleHeight, room);
  fonts.textHeight = std::min(fonts.textHeight, room - fonts.titleHeight);
  return fonts;
}

void LockPainter::Paint(HDC context, const RECT& area, UINT dpi) {
  const int width = area.right - area.left;
  const int height = area.bottom - area.top;
  const Canvas canvas(context, width, height);
  const HDC painting = canvas.Context();
  FillBackground(painting, width, height);

  const UINT flags = kTextFlags | (face_.isRightToLeft ? DT_RTLREADING : 0);
  const int side = Scaled(kSignSide, dpi);
  const int gaps = Scaled(kGap, dpi) + Scaled(kTitleGap, dpi);
  const int textWidth = std::min(Scaled(kMaxTextWidth, dpi), width * kMaxWidthPercent / 100);
  const int room = std::max(0, height * kMaxHeightPercent / 100 - side - gaps);
  const Fonts& fonts = FittingFonts(painting, dpi, textWidth, room, flags);

  const int left = (width - textWidth) / 2;
  int top = std::max(0, (height - side - gaps - fonts.titleHeight - fonts.textHeight) / 2);
  PaintSign(painting, (width - side) / 2, top, side);
  top += side + Scaled(kGap, dpi);
  PaintText(painting, fonts.title.get(), face_.title,
            {left, top, left + textWidth, top + fonts.titleHeight}, kTitleColour, flags);
  top += fonts.titleHeight + Scaled(kTitleGap, dpi);
  PaintText(painting, fonts.text.get(), face_.text,
            {left, top, left + textWidth, top + fonts.textHeight}, kTextColour, flags);
  BitBlt(context, area.left, area.top, width, height, painting, 0, 0, SRCCOPY);
}
