#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// Texts of command lines.

/// The arguments as one text, from which a program that takes command lines apart as Windows'
/// CommandLineToArgvW does gets them back as they are. Agents do the same on every platform.
std::string JoinArguments(const std::vector<std::string>& arguments);

/// A whole number above 0 and below 2^32, as C writes it: decimal, hexadecimal after "0x", octal
/// after "0". Nothing when the text is anything else.
std::optional<uint32_t> ParseProcessId(std::string_view text);
