#pragma once

#include "module/action.h"

// Bringing a backup that is kept on one agent, the relay, back to another one. What the actions
// read and answer is described in docs/actions/relay.md.

/// Runs on the agent that wants its backup back.
ResultCode CoreUtilsRestoreBackupFromRelay(ZelContainer* params);
/// Runs on the agent that has the backup: it picks the archive and sends it.
ResultCode CoreUtilsRestoreBackup(ZelContainer* params);
