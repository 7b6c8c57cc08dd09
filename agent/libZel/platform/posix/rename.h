#pragma once

/// renameat that never replaces: an existing destination is EEXIST, without a moment in which both
/// could be there. Returns 0 or errno.
int RenameFileAt(int sourceDir, const char* source, int destinationDir, const char* destination);
/// The same for directories.
int RenameDirectoryAt(int sourceDir, const char* source, int destinationDir,
                      const char* destination);
