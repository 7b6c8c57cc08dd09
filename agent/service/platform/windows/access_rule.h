#pragma once

#include <windows.h>

#include <string>

/// What a file or directory is to the agent, the more the stricter.
enum class AccessUse {
  kParent,   ///< a directory above: others may add to it, but not replace what is in it
  kTrusted,  ///< others may not change it
  kSecret,   ///< nor read it
};

/// Which account a descriptor gives too much, and what: "belongs to ..., not to an administrator".
/// Empty when only administrators, the system, the installer of the system and `own` (this
/// process's account; may be null) may do what `use` keeps from others.
std::string AccessWeakness(PSECURITY_DESCRIPTOR descriptor, AccessUse use, PSID own);
