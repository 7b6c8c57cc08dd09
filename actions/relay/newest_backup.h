#pragma once

#include "libZel.h"

/// The entry of `directory` with the latest date among the backups called `name`: those that hold
/// `name`, "_" and eight digits YYYYMMDD. Among equal dates the one that the directory yields last;
/// dates that the calendar does not have are passed over. Empty when there is none.
ZelString FindNewestBackup(const ZelString& directory, const ZelString& name);
