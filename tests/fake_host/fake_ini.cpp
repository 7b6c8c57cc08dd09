// host/libZel: INI files and what changes their lines.

#include "tests/fake_host/ask.h"
#include "tests/fake_host/transcript.h"

struct IniFile::Content {};

IniFile::IniFile(const ZelString& path) : File(path) {
  Host().Note("IniFile(" + Quote(path) + ")");
  Host().Hold();
}

IniFile::~IniFile() {
  Host().NoteRelease("~IniFile");
}

int IniFile::GetEntryName(const ZelString& section, unsigned index, ZelString& name) const {
  const FakeHost::ScriptedAnswer answer =
      Host().Ask("IniFile::GetEntryName", List(Quote(section), std::to_string(index)));
  if (answer.value != 0) name = answer.text;
  return static_cast<int>(answer.value);
}

int IniFile::GetEntryValue(const ZelString& section, const ZelString& name, ZelString& value,
                           const ZelString& defaultValue) const {
  const FakeHost::ScriptedAnswer answer =
      Host().Ask("IniFile::GetEntryValue", List(Quote(section), Quote(name), Quote(defaultValue)));
  value = answer.value != 0 ? answer.text : defaultValue;
  return static_cast<int>(answer.value);
}

uint32_t IniFile::FindEntryLine(const ZelString& section, const ZelString& name) const {
  return Ask32("IniFile::FindEntryLine", List(Quote(section), Quote(name)));
}

int File::InsertLine(unsigned long line, const ZelString& text) {
  return AskInt("File::InsertLine", List(std::to_string(line), Quote(text)));
}

int File::DeleteLine(unsigned long line) {
  return AskInt("File::DeleteLine", std::to_string(line));
}
