#pragma once

#include <string>
#include <string_view>
#include <vector>

/// Whether `name` matches `pattern` without regard to the case of A to Z: a pattern with "*" (any
/// text) or "?" (one byte) must cover the whole name, any other one may stand anywhere in it.
bool MatchesPattern(std::string_view name, std::string_view pattern);

/// The candidate nearest to `name` by edit distance (Levenshtein, ignoring case), or empty when
/// none is near enough to have been meant.
std::string NearestName(std::string_view name, const std::vector<std::string>& candidates);
