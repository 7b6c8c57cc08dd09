#pragma once

#include <vector>

/// A list.
template <typename Value>
using ZelVector = std::vector<Value>;
