#pragma once

#include <cstdint>

/// Tells the host under test what its next call of `function` will answer. The fake needs it; the
/// real one knows for itself and ignores it. The linked .cpp file decides which one is under test.
void ScriptAnswer(const char* function, int64_t answer);

/// Starts and ends a test's host.
void SetUpHost();
void TearDownHost();
