#pragma once

#include "libZel/string.h"

/// Reads a whole file into `*text`, byte for byte: bytes that belong to no character are lone
/// surrogates in it, as everywhere in `ZelString`. False, with `*text` as it was, when it cannot be
/// read or is larger than 64 MiB; the reason goes to the library's log. Never throws.
bool LoadFileToString(const ZelString& path, ZelString* text);

/// Writes `text` over the file `path`, the lone surrogates of `LoadFileToString` as the bytes that
/// they stand for. The file is replaced as a whole, with its owner and permissions, or stays as it
/// was: then false, with the reason in the library's log. Also refused, so that nobody writes back
/// what was never read: the path whose `LoadFileToString` failed last in this thread. Never throws.
bool SaveFileFromString(const ZelString& path, const ZelString& text);
