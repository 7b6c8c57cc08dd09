#include "libZel/ini_file.h"

struct IniFile::Content {};

IniFile::IniFile(const ZelString& path) : File(path) {}

IniFile::~IniFile() = default;

int IniFile::GetEntryName(const ZelString&, unsigned, ZelString&) const {
  return 0;
}

int IniFile::GetEntryValue(const ZelString&, const ZelString&, ZelString& value,
                           const ZelString& defaultValue) const {
  value = defaultValue;
  return 0;
}

uint32_t IniFile::FindEntryLine(const ZelString&, const ZelString&) const {
  return 0;
}

int File::InsertLine(unsigned long, const ZelString&) {
  editFailed_ = true;
  return 0;
}

int File::DeleteLine(unsigned long) {
  return editFailed_ ? 0 : 0;
}
