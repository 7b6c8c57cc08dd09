#pragma once

#include <string>

#include "libZel/string.h"
#include "libZelMarlin.h"

/// The text of a script file, or why there is none.
struct ScriptSource {
  /// `kMarlinOk`, `kMarlinNotReadable` or `kMarlinNotText`.
  MarlinError error = kMarlinOk;
  /// For people, with the file's name; empty on success.
  ZelString reason;
  /// Without byte-order mark, and without what stands in a first line that starts with "#".
  std::string text;
};

/// Reads a script file of up to 16 MiB. Throws only for want of memory.
ScriptSource ReadScriptSource(const ZelString& path);

/// The last part of a path.
ZelString FileNameOf(const ZelString& path);
