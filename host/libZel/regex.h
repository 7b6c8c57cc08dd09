#pragma once

#include "libZel/string.h"
#include "libZel/vector.h"

// Regular expressions with Perl's syntax. Patterns and texts are taken as bytes of UTF-8: "." is
// any byte but CR and LF, and a class of characters beyond ASCII does not work. A pattern that is
// malformed matches nothing, and so does one whose search would take unreasonably long (about a
// second) or too much memory. Nothing here throws; any number of threads may call at once.

/// Whether `pattern` matches anywhere in `text`. `flags` is 0, with others nothing matches.
bool MatchRegex(const ZelString& text, const ZelString& pattern, int flags);

/// Replaces every match of `pattern` in `*text`, found left to right without overlap, by
/// `replacement`, which is taken as it stands (no references to groups). `flags` is 0, as above.
/// Returns the number of replacements; 0, with the text as it was, on failure.
int PcreReplace(ZelString* text, const ZelString& pattern, const ZelString& replacement, int flags);

/// Whether `pattern` matches anywhere in `subject`: 1, and `captures` becomes the texts of its
/// groups in order (empty for one that took no part); or 0, and `captures` becomes empty. `start`
/// is where the search begins, in bytes (outside of the text nothing matches); `ignoreCase`
/// compares the letters A to Z without regard to case; with `acrossLines` line ends are characters
/// like others: "." matches them too, and "$" only the end of the whole text.
int FindPcre(const ZelString& subject, const ZelString& pattern, ZelVector<ZelString>& captures,
             int start, int ignoreCase, int acrossLines);
