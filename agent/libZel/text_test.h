#pragma once

#include <cstddef>

/// How many bytes at its start decide whether a file is text.
constexpr size_t kTextTestBytes = 4096;

/// Whether none of the bytes is a control character but BEL, BS, TAB, LF, VT, FF, CR and ESC.
bool LooksLikeText(const char* bytes, size_t count);
