#pragma once

#include <string>
#include <string_view>

/// A text as a widget can take it: UTF-8 without NUL, as plain text. Lines and tabs stay. U+FFFD
/// stands for other control characters, for what is no character, such as a lone surrogate, and for
/// the overrides of the writing direction, which show a text in another order than it is read by
/// programs.
std::string ShownText(std::string_view wtf8);

/// The same in one line: breaks and tabs become blanks.
std::string ShownLine(std::string_view wtf8);

/// `words` with "{Time}" in it replaced by so many seconds as "1:05" or "2:01:05"; without such a
/// place the time stands after the words.
std::string ShownTimeLeft(std::string_view words, long long seconds);
