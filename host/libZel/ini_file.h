#pragma once

#include <cstdint>
#include <memory>

#include "libZel/file.h"

/// A file of the form
///
///     ; comment
///     [section]
///     name = value
///
/// as it was when the object was made; a file that is missing, cannot be read or has more than
/// 16 MiB has no entries (the log tells why, unless it is missing). Blanks (spaces and tabs) around
/// lines, names and values are dropped; a value is otherwise taken as it stands. A comment is a
/// line that starts with ";" or "#". What stands behind the "]" of a section is passed over, as are
/// entries in front of the first section and lines that are none of these. Sections and names match
/// whatever their case (A to Z). A section that stands in the file more than once is one section;
/// of entries of the same name only the first one counts. The text is UTF-8, or UTF-16 when a
/// byte-order mark says so.
///
/// Threads: like a standard container. Nothing here throws.
class IniFile : public File {
 public:
  explicit IniFile(const ZelString& path);
  ~IniFile();
  IniFile(const IniFile&) = delete;
  IniFile& operator=(const IniFile&) = delete;

  /// The name of the entry `index` of the section, counted from 1 in the order of the lines.
  /// Returns 1, or 0 with `name` as it was when there is no such entry. A section that holds a line
  /// which this process could not change (see `File::InsertLine`) has no entries until the file is
  /// changed, so that who works through a section by changing its lines comes to an end.
  int GetEntryName(const ZelString& section, unsigned index, ZelString& name) const;

  /// The value of an entry. Returns 1, or 0 with `value` set to `defaultValue` when there is none.
  int GetEntryValue(const ZelString& section, const ZelString& name, ZelString& value,
                    const ZelString& defaultValue = {}) const;

  /// The number of the entry's line, counted from 1; 0 when there is no such entry.
  uint32_t FindEntryLine(const ZelString& section, const ZelString& name) const;

 private:
  struct Content;
  std::unique_ptr<const Content> content_;
};
