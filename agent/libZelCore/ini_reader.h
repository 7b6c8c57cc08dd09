#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

/// One "key = value" of an INI text.
struct IniEntry {
  std::string_view section;
  std::string_view key;
  std::string_view value;
  size_t line = 0;  ///< counted from 1
};

/// One "[section]" line, kept although nothing may stand below it.
struct IniSection {
  std::string_view name;
  size_t line = 0;
};

/// What the strict reader finds. The views refer to the text that was read.
struct IniDocument {
  std::vector<IniSection> sections;
  std::vector<IniEntry> entries;
  std::vector<std::string> errors;  ///< "line N: what is wrong"
};

/// Reads lines of "[section]", "key = value", "# comment" and "; comment". Blanks around keys and
/// values are dropped; a value is taken as it stands, with no quotes, escapes or comments behind
/// it. An entry outside a section, a second one of the same key and any other line is an error.
IniDocument ReadIni(std::string_view text);
