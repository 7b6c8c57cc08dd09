#pragma once

#include <cstdlib>

/// What a target asserts of every input. The report of a crash tells the line.
inline void Require(bool holds) {
  if (!holds) std::abort();
}
