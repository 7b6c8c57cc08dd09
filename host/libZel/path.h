#pragma once

#include "libZel/string.h"

// Both "\" and "/" separate the parts of a path on every platform.

/// Splits `path` into its drive ("C:", a share's "\\server\share" with either separator, or empty),
/// directory (what follows up to the last separator, that one included), name, and extension (from
/// the last dot of the last part, that dot included; a leading dot belongs to the name, and so does
/// all of a part ".."). The four joined again give `path`. Outputs may be null; they may not alias
/// `path`.
void SplitPath(const ZelString& path, ZelString* drive, ZelString* directory, ZelString* name,
               ZelString* extension);

/// `path` as a full one: relative paths start at the process's working directory; "." and ".."
/// parts are resolved in the text (links are not followed). Separators become the platform's, a
/// closing one stays. An empty path and a URL stay as they are, and so does any path when the
/// working directory is not known.
ZelString CompletePath(const ZelString& path);

/// Creates the directory `path` with every missing parent. True when it exists afterwards.
bool PathCreate(const ZelString& path);
