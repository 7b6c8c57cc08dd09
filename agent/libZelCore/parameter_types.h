#pragma once

#include <string>
#include <string_view>

#include "libZel/container.h"

/// Compares a request with the parameter list of a registered signature, "Name (string Path, int
/// Offset)". Keys that the list does not name and types that it does not know are left alone. Empty
/// when all is well, else a sentence naming the key and both types.
std::string FindWrongType(std::string_view signature, const ZelContainer& parameters);
