#include "agent/zelctl/name_match.h"

#include <algorithm>
#include <cstddef>
#include <numeric>

#include "agent/libZel/ascii.h"

namespace {

/// Goes back only to the latest star, so the cost is the product of the lengths at most.
bool MatchesGlob(std::string_view text, std::string_view pattern) {
  size_t t = 0;
  size_t p = 0;
  size_t starAt = std::string_view::npos;
  size_t resumeAt = 0;
  while (t < text.size()) {
    if (p < pattern.size() && pattern[p] == '*') {
      starAt = p++;
      resumeAt = t;
    } else if (p < pattern.size() && (pattern[p] == '?' || pattern[p] == text[t])) {
      ++p;
      ++t;
    } else if (starAt != std::string_view::npos) {
      p = starAt + 1;
      t = ++resumeAt;
    } else {
      return false;
    }
  }
  return pattern.find_first_not_of('*', p) == std::string_view::npos;
}

size_t EditDistance(std::string_view a, std::string_view b) {
  std::vector<size_t> row(b.size() + 1);
  std::iota(row.begin(), row.end(), size_t{0});
  for (size_t i = 0; i < a.size(); ++i) {
    size_t diagonal = row[0];
    row[0] = i + 1;
    for (size_t j = 0; j < b.size(); ++j) {
      const size_t substituted = diagonal + (a[i] == b[j] ? 0 : 1);
      diagonal = row[j + 1];
      row[j + 1] = std::min({row[j + 1] + 1, row[j] + 1, substituted});
    }
  }
  return row.back();
}

}  // namespace

bool MatchesPattern(std::string_view name, std::string_view pattern) {
  const std::string text = AsciiLower(name);
  const std::string wanted = AsciiLower(pattern);
  if (wanted.find_first_of("*?") != std::string::npos) return MatchesGlob(text, wanted);
  return text.find(wanted) != std::string::npos;
}

std::string NearestName(std::string_view name, const std::vector<std::string>& candidates) {
  constexpr size_t kLongestName = 256;
  if (name.size() > kLongestName) return {};
  const std::string wanted = AsciiLower(name);

  // A third of the letters may be wrong; beyond that it is another name.
  size_t nearest = std::max<size_t>(wanted.size() / 3, 2) + 1;
  std::string best;
  for (const std::string& candidate : candidates) {
    if (candidate.size() > kLongestName) continue;
    const size_t distance = EditDistance(wanted, AsciiLower(candidate));
    if (distance >= nearest) continue;
    nearest = distance;
    best = candidate;
  }
  return best;
}
