#include "module/startup_scripts.h"

#include "libZelCore.h"
#include "module/invocation.h"
#include "module/module.h"

namespace {

struct Entry {
  ZelString name;
  ZelString script;
};

/// Reads an entry of the section, counted from 1; false when there are no more. The file is opened
/// for each anew, because the script before may have been commented out meanwhile.
bool ReadEntry(const ZelString& section, unsigned index, Entry* entry) {
  const IniFile file(ModuleIniPath());
  if (file.GetEntryName(section, index, entry->name) == 0) return false;
  file.GetEntryValue(section, entry->name, entry->script, "");
  return true;
}

void RunScript(const ZelString& script) {
  ZelContainer params;
  params.SetString("Name", script, kNoIndex);
  InvokeHere("CoreUtilsRunScript", &params);
}

void CommentOut(const ZelString& section, const Entry& entry) {
  IniFile file(ModuleIniPath());
  const uint32_t line = file.FindEntryLine(section, entry.name);
  if (line == 0) return;

  ZelString comment;
  comment.Printf("; %S=%S%s", entry.name, entry.script, "\r\n");
  file.InsertLine(line, comment);
  file.DeleteLine(line + 1);
}

void RunSection(const ZelString& section, bool remove) {
  unsigned index = 1;
  for (Entry entry; ReadEntry(section, index, &entry); entry = {}) {
    RunScript(entry.script);
    if (remove) {
      // The next entry takes the place of this one.
      CommentOut(section, entry);
    } else {
      ++index;
    }
  }
}

}  // namespace

void RunStartupScripts() {
  RunSection("RunOnce", true);
  RunSection("Run", false);
}
