#pragma once

#include <cstdint>
#include <string>
#include <vector>

/// Tells the host under test what its next call of `function` will answer. The fake needs it; the
/// real one knows for itself and ignores it. The linked .cpp file decides which one is under test.
void ScriptAnswer(const char* function, int64_t answer);
/// The same for calls that give a text or a list of texts, that fill in bytes, and for a directory
/// of these names.
void ScriptText(const char* function, const std::string& text);
void ScriptList(const char* function, const std::vector<std::string>& texts);
void ScriptBytes(const char* function, const std::string& bytes);
void ScriptDirectory(const std::vector<std::string>& names);

/// Starts and ends a test's host.
void SetUpHost();
void TearDownHost();
