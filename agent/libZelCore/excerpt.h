#pragma once

#include <cstddef>
#include <string>
#include <string_view>

/// How much of a text that strangers have chosen stands in the log and in answers to them.
constexpr size_t kLongestExcerpt = 100;

/// The first bytes of a text, without half a character at their end; "..." behind them where more
/// follow.
std::string Excerpt(std::string_view text, size_t longest = kLongestExcerpt);
