#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

/// Whether both databases keep this text as it is: UTF-8 without NUL.
bool IsStorable(std::string_view text);

/// Throws StoreError, naming the field, unless the text is storable.
void RequireStorable(std::string_view text, const char* field);

/// What indexes hold in a text's place: texts may be longer than an index takes. Equal texts have
/// equal keys; unequal ones may have, so that the text is always compared too. The keys of stored
/// texts are in the database: this function must never change.
int32_t TextKey(std::string_view text);

/// A message of a library as the end of a sentence: one line, without blanks around it.
std::string OneLine(std::string_view message);
