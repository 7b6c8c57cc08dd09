#pragma once

#include <optional>

#include "libZel/string.h"

// What this thread has extracted last: `FileExists` answers by it, see `GenericArchive`.

/// `owner` is the archive. Never throws; without memory nothing is remembered.
void RememberExtraction(const void* owner, const ZelString& target, bool cameOut) noexcept;
/// Forgets what this thread has extracted from `owner` last.
void ForgetExtraction(const void* owner) noexcept;
/// Whether the entry came out; nothing when this thread's last extraction went elsewhere.
std::optional<bool> LastExtractionTo(const ZelString& target);
