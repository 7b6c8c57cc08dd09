#pragma once

#include <functional>
#include <map>
#include <string>
#include <string_view>

/// Texts of one language by key.
using TranslationTexts = std::map<std::string, std::string, std::less<>>;

/// The most that a file may hold, in bytes.
constexpr size_t kMaxTranslationFileBytes = 1 << 20;

/// Reads lines "KEY = text" in UTF-8 into `texts`, replacing what is there; blank lines and those
/// that begin with ";" or "#" are passed over, as is a byte order mark at the start. In a text,
/// "\n" is a line end and "\\" a backslash; it holds no other control characters. Lines that are
/// none, and keys that came before in the same file, are left out and told to `complain` ("line 3:
/// ..."), the first twenty of them.
void ReadTranslationFile(std::string_view content, TranslationTexts* texts,
                         const std::function<void(const std::string& line)>& complain);

/// A language's tag as files are named, in lower case: "de-at" of "de_AT.UTF-8@euro". Empty for
/// what is none, "C" and "POSIX".
std::string NormalLanguageTag(std::string_view language);
