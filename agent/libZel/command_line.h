#pragma once

#include <string>
#include <string_view>
#include <vector>

/// Takes a command line apart as programs of Windows do, on every platform.
///
/// Blanks and tabs separate arguments; double quotes hold them together and are left out. In front
/// of a double quote 2n backslashes mean n of them and the quote counts, 2n + 1 mean n and a
/// literal quote; all other backslashes stand for themselves. `""` within quotes is a literal
/// quote, and the quotes go on. In the first argument, the program, quotes alone have a meaning; it
/// is empty when the line begins with a blank, and always there. Quotes that are left open end with
/// the line.
std::vector<std::string> SplitCommandLine(std::string_view line);
