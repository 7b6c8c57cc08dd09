#pragma once

#include <cstdint>
#include <optional>

#include "libZel.h"

/// What the newest of the backups called `name` is found by, those that hold `name`, "_" and eight
/// digits YYYYMMDD: the seconds since 1970 at which the date at the end of the entry's name begins,
/// as a 32-bit number, which wraps in 2106. None for an entry that is no such backup, or whose date
/// the calendar does not have. Whoever tells what will be chosen asks here, too.
std::optional<uint32_t> RankOfBackup(const ZelString& entryName, const ZelString& name);
