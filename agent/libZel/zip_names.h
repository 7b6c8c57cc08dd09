#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "libZel/string.h"

// Names of entries. Nothing in them is trusted.
namespace zip_names {

/// A name in the code page of the format, 437, as a text.
ZelString FromCodePage437(std::string_view bytes);
/// Any bytes as a text: those that are not UTF-8 are kept as lone surrogates.
ZelString FromBytes(std::string_view bytes);

/// The parts between the separators "/" and "\". One separator at the end is left out, and so is
/// each part ".": none is left of "./", which is the directory itself.
std::vector<std::string> Split(std::string_view name);
bool EndsInSeparator(std::string_view name);
/// Whether no file can have the name: its last part is "." or it ends in a separator.
bool IsOfDirectory(std::string_view name);

/// Why the entry has no place below a directory, or null. Names of more than 4096 bytes or 255
/// parts have none. With `asOnWindows` its names must be ones that Windows can store.
const char* ReasonToRefuse(std::string_view name, bool asOnWindows);

/// What two names have in common that Windows takes for the same: separators alike, no parts ".",
/// and upper case for the letters of Latin, Greek, Cyrillic and Armenian unless `keepCase`.
std::string Key(std::string_view name, bool keepCase);

/// The part of `target` in front of the entry's names, or an empty text when it does not end with
/// them; parts "." among them do not count. A root keeps its separator.
std::string RootOf(std::string_view target, const std::vector<std::string>& names);

}  // namespace zip_names
