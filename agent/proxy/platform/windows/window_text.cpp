#include "agent/proxy/platform/windows/window_text.h"

#include <initguid.h>

// After initguid.h, which makes the identifiers below definitions.
#include <oleacc.h>

#include <algorithm>

#include "agent/proxy/platform/windows/handles.h"
#include "libZel/string.h"

namespace {

constexpr wchar_t kReplacement = 0xFFFD;
constexpr wchar_t kEllipsis = 0x2026;
constexpr UINT kUsualDpi = 96;

bool IsHighSurrogate(wchar_t unit) {
  return unit >= 0xD800 && unit <= 0xDBFF;
}

bool IsLowSurrogate(wchar_t unit) {
  return unit >= 0xDC00 && unit <= 0xDFFF;
}

bool IsControl(wchar_t unit) {
  return unit < 0x20 || (unit >= 0x7F && unit <= 0x9F);
}

// They would turn around what stands beside them too.
bool IsOverride(wchar_t unit) {
  return unit == 0x202D || unit == 0x202E;
}

std::wstring Wide(std::string_view text) {
  const ZelString converted(text);
  return std::wstring(reinterpret_cast<const wchar_t*>(converted.GetTCHAR()),
                      converted.GetSize(kEncodingUtf16) / sizeof(wchar_t));
}

// Line ends become '\n', what cannot be shown U+FFFD.
std::wstring Showable(std::string_view text) {
  const std::wstring wide = Wide(text);
  std::wstring shown;
  shown.reserve(wide.size());
  for (size_t i = 0; i < wide.size(); ++i) {
    const wchar_t unit = wide[i];
    const wchar_t next = i + 1 < wide.size() ? wide[i + 1] : L'\0';
    if (IsHighSurrogate(unit) && IsLowSurrogate(next)) {
      shown += unit;
      shown += next;
      ++i;
    } else if (unit == L'\r' || unit == L'\n' || unit == 0x85 || unit == 0x2028 || unit == 0x2029) {
      if (unit == L'\r' && next == L'\n') ++i;
      shown += L'\n';
    } else if (unit == L'\t') {
      shown += unit;
    } else {
      const bool isLone = IsHighSurrogate(unit) || IsLowSurrogate(unit);
      shown += isLone || IsControl(unit) || IsOverride(unit) ? kReplacement : unit;
    }
  }
  return shown;
}

std::wstring TwoDigits(uint32_t number) {
  return (number < 10 ? L"0" : L"") + std::to_wstring(number);
}

// A context to measure with.
class Measuring {
 public:
  explicit Measuring(HFONT font)
      : context_(GetDC(nullptr)), before_(SelectObject(context_, font)) {}
  ~Measuring() {
    SelectObject(context_, before_);
    ReleaseDC(nullptr, context_);
  }
  Measuring(const Measuring&) = delete;
  Measuring& operator=(const Measuring&) = delete;

  HDC Context() const { return context_; }

 private:
  HDC context_;
  HGDIOBJ before_;
};

}  // namespace

std::wstring LinesForWindow(std::string_view text) {
  std::wstring lines;
  for (const wchar_t unit : Showable(text)) {
    if (unit == L'\n') lines += L'\r';
    lines += unit;
  }
  return lines;
}

std::wstring LineForWindow(std::string_view text) {
  std::wstring line = Showable(text);
  std::replace_if(
      line.begin(), line.end(), [](wchar_t unit) { return unit == L'\n' || unit == L'\t'; }, L' ');
  return line;
}

std::wstring WithoutMnemonic(const std::wstring& label) {
  std::wstring doubled;
  for (const wchar_t unit : label) doubled.append(unit == L'&' ? 2 : 1, unit);
  return doubled;
}

std::wstring TimeLeft(std::wstring words, uint32_t seconds) {
  const uint32_t hours = seconds / 3600;
  const uint32_t minutes = seconds / 60 % 60;
  std::wstring time =
      hours > 0 ? std::to_wstring(hours) + L":" + TwoDigits(minutes) : std::to_wstring(minutes);
  time += L":" + TwoDigits(seconds % 60);

  static constexpr std::wstring_view kPlace = L"{Time}";
  const size_t place = words.find(kPlace);
  if (place == std::wstring::npos) return words.empty() ? time : words + L" " + time;
  return words.replace(place, kPlace.size(), time);
}

int Scaled(int pixels, UINT dpi) {
  return MulDiv(pixels, static_cast<int>(dpi), kUsualDpi);
}

HFONT MessageFont(UINT dpi, int percent) {
  NONCLIENTMETRICSW metrics{};
  metrics.cbSize = sizeof metrics;
  if (!SystemParametersInfoForDpi(SPI_GETNONCLIENTMETRICS, sizeof metrics, &metrics, 0, dpi)) {
    return nullptr;
  }
  LOGFONTW& font = metrics.lfMessageFont;
  font.lfHeight = MulDiv(font.lfHeight, percent, 100);
  font.lfQuality = CLEARTYPE_QUALITY;
  return CreateFontIndirectW(&font);
}

int TextWidth(HFONT font, const std::wstring& text) {
  const Measuring measuring(font);
  SIZE size{};
  GetTextExtentPoint32W(measuring.Context(), text.c_str(), static_cast<int>(text.size()), &size);
  return size.cx;
}

int LineHeight(HFONT font) {
  const Measuring measuring(font);
  TEXTMETRICW metrics{};
  GetTextMetricsW(measuring.Context(), &metrics);
  return metrics.tmHeight;
}

std::wstring Fitted(HFONT font, const std::wstring& text, int width) {
  if (TextWidth(font, text) <= width) return text;
  const int room = std::max(0, width - TextWidth(font, std::wstring(1, kEllipsis)));
  const Measuring measuring(font);
  int count = 0;
  SIZE size{};
  GetTextExtentExPointW(measuring.Context(), text.c_str(), static_cast<int>(text.size()), room,
                        &count, nullptr, &size);
  if (count > 0 && IsHighSurrogate(text[count - 1])) --count;
  return text.substr(0, count) + kEllipsis;
}

void SetAccessibleName(HWND window, const std::wstring& name, LONG role) {
  ComPointer<IAccPropServices> services;
  if (FAILED(CoCreateInstance(CLSID_AccPropServices, nullptr, CLSCTX_INPROC_SERVER,
                              IID_IAccPropServices, services.Receive()))) {
    return;
  }
  const DWORD object = static_cast<DWORD>(OBJID_CLIENT);
  services->SetHwndPropStr(window, object, CHILDID_SELF, PROPID_ACC_NAME, name.c_str());
  if (role == 0) return;
  VARIANT value;
  VariantInit(&value);
  value.vt = VT_I4;
  value.lVal = role;
  services->SetHwndProp(window, object, CHILDID_SELF, PROPID_ACC_ROLE, value);
}
