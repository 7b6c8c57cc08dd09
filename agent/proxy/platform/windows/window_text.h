#pragma once

#include <windows.h>

#include <cstdint>
#include <string>
#include <string_view>

// Texts and measures of the proxy's windows.

/// `text` (WTF-8) for a control of several lines: every end of line as CR LF; other control
/// characters and lone surrogates, which no font shows, and overrides of the direction of writing
/// as U+FFFD. Tabs stay.
std::wstring LinesForWindow(std::string_view text);

/// The same for a title or a label: ends of lines and tabs become blanks.
std::wstring LineForWindow(std::string_view text);

/// `label` without the underlined letter that a single "&" would ask for.
std::wstring WithoutMnemonic(const std::wstring& label);

/// "{Time}" in `words` replaced by `seconds`, as "1:05" or, from an hour on, "1:00:05". Without
/// "{Time}" the time stands after the words.
std::wstring TimeLeft(std::wstring words, uint32_t seconds);

/// `pixels` of a display with 96 dots per inch in those of one with `dpi`.
int Scaled(int pixels, UINT dpi);

/// A font of the system's for messages at `dpi`, `percent` of its usual size, or null. The caller
/// deletes it.
HFONT MessageFont(UINT dpi, int percent = 100);

/// The width of `text` in one line.
int TextWidth(HFONT font, const std::wstring& text);
/// The height of a line.
int LineHeight(HFONT font);
/// `text`, cut with an ellipsis where it is wider than `width`.
std::wstring Fitted(HFONT font, const std::wstring& text, int width);

/// Tells screen readers the name (and, unless 0, the role) of a window that they would not find by
/// themselves. Does nothing where the system has no such service.
void SetAccessibleName(HWND window, const std::wstring& name, LONG role = 0);
