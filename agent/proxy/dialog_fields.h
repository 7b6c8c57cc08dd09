#pragma once

#include <string>

#include "agent/proxy/desktop.h"
#include "agent/proxy_protocol/message.h"

// Beyond these a text is cut, in characters: nobody reads so much, and to lay it out would hold up
// the windows for seconds.
constexpr size_t kMaxLineCharacters = 500;
constexpr size_t kMaxTextCharacters = 100'000;
constexpr size_t kMaxLockTextCharacters = 4000;

/// What stands where a request names no label or title; none is empty.
struct DialogWords {
  std::string yes;
  std::string no;
  std::string close;
  std::string title;
};

/// The dialog that a request "dialog-create" describes. Throws std::runtime_error with a sentence
/// when a field has an unusable value or the one that must be there, "buttons", is missing.
DialogContent DialogOf(const proxy_protocol::Message& request, const DialogWords& words);

/// The number that a field must have.
uint32_t NeedNumber(const proxy_protocol::Message& request, const char* field);
/// A field that is "1", or is "0" or missing or empty.
bool ReadFlag(const proxy_protocol::Message& request, const char* field);
/// The field's text; empty without one. Of a longer one so many characters, and an ellipsis.
std::string ReadText(const proxy_protocol::Message& request, const char* field,
                     size_t maxCharacters);
