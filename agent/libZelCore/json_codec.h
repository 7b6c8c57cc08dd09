#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "libZel/container.h"

/// How containers travel as JSON (RFC 8259); docs/protocol.md gives the mapping and the escape for
/// names that are not valid Unicode.

constexpr size_t kMaxJsonDepth = 32;

struct JsonDecodeResult {
  ZelContainer container;
  /// Empty on success; else what was wrong and where, for the caller of the protocol.
  std::string error;
};

/// Decodes one JSON object. Empty lists leave their key absent. Never throws (but for lack of
/// memory); any input is safe.
JsonDecodeResult DecodeContainer(std::string_view json);

/// Appends the container as a JSON object.
void EncodeContainer(const ZelContainer& container, std::string* json);
/// Appends `text` as a JSON string with its quotes.
void EncodeString(std::string_view wtf8, std::string* json);
