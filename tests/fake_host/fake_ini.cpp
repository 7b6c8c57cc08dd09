// host/libZel: INI files and what changes their lines.

#include "tests/fake_host/fake_host.h"
#include "tests/fake_host/transcript.h"

struct IniFile::Content {};

IniFile::IniFile(const ZelString& path) : File(path) {
  FakeHost::Current().Note("IniFile(" + Quote(path) + ")");
}

IniFile::~IniFile() {
  FakeHost::Current().NoteRelease("~IniFile");
}

int IniFile::GetEntryName(const ZelString& section, unsigned index, ZelString& name) const {
  const FakeHost::ScriptedAnswer answer =
      FakeHost::Current().Ask("IniFile::GetEntryName", List(Quote(section), std::to_string(index)));
  if (answer.value != 0) name = answer.text;
  return static_cast<int>(answer.value);
}

int IniFile::GetEntryValue(const ZelString& section, const ZelString& name, ZelString& value,
                           const ZelString& defaultValue) const {
  const FakeHost::ScriptedAnswer answer = FakeHost::Current().Ask(
      "IniFile::GetEntryValue", List(Quote(section), Quote(name), Quote(defaultValue)));
  value = answer.value != 0 ? answer.text : defaultValue;
  return static_cast<int>(answer.value);
}

uint32_t IniFile::FindEntryLine(const ZelString& section, const ZelString& name) const {
  return static_cast<uint32_t>(
      FakeHost::Current().Ask("IniFile::FindEntryLine", List(Quote(section), Quote(name))).value);
}

int File::InsertLine(unsigned long line, const ZelString& text) {
  return static_cast<int>(
      FakeHost::Current().Ask("File::InsertLine", List(std::to_string(line), Quote(text))).value);
}

int File::DeleteLine(unsigned long line) {
  return static_cast<int>(FakeHost::Current().Ask("File::DeleteLine", std::to_string(line)).value);
}
