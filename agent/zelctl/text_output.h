#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "libZel/container.h"

/// What of a text could act on a terminal is written out: "\n", "\x1b", "\u202e". Bytes that are
/// not UTF-8 become "\x80" and the like. With `keepLines`, line ends and tabs stay as they are.
std::string EscapeForTerminal(std::string_view text, bool keepLines = false);

/// A table with aligned columns, two blanks apart, each line ended. Cells are escaped.
std::string FormatTable(const std::vector<std::string>& header,
                        const std::vector<std::vector<std::string>>& rows);

/// A container for people: "Key: value" lines, nested containers indented, lists of containers as
/// tables. Empty for an empty container.
std::string FormatContainer(const ZelContainer& container);

constexpr int64_t kMsPerSecond = 1000;

/// "2026-01-31 09:05" of seconds since 1970-01-01 00:00 UTC, in local time; "?" when there is none.
std::string FormatLocalTime(int64_t secondsUtc);

/// "13 B", "1.5 KiB".
std::string FormatShortSize(uint64_t sizeBytes);
/// "13 bytes", "1,536 bytes (1.5 KiB)".
std::string FormatSize(uint64_t sizeBytes);
