#pragma once

#include <cstdint>

#include "libZel/string.h"

// Base64 with the standard alphabet (RFC 4648 section 4). Pure functions.

/// The bytes as Base64 with padding, without line breaks. `bytes` may be null when there are none.
ZelString EncodeBase64(const unsigned char* bytes, uint32_t byteCount);

/// The bytes that a Base64 text stands for. `*length` is the text's length going in and the number
/// of decoded bytes coming out. Blanks, tabs and line breaks are skipped anywhere; padding is
/// required. Null, with `*length` 0, for any other text, and when there is no memory. Otherwise
/// never null, even for no bytes; the caller frees the result with `std::free`.
char* DecodeBase64(const unsigned char* text, uint32_t* length);
