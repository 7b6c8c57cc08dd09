#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "libZel/string.h"

// Names are bytes here. Those that are not UTF-8 are lone surrogates U+DC80..U+DCFF in a ZelString.

/// The bytes that a text stands for; none when it holds another lone surrogate.
std::optional<std::string> BytesOf(std::string_view wtf8);

/// The text of any bytes: `BytesOf` gives exactly them back.
ZelString TextOfBytes(std::string_view bytes);
