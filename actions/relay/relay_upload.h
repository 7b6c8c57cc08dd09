#pragma once

#include "module/action.h"

// Uploads to the relay, the agent that this one names as its parent. What the action reads and
// answers is described in docs/actions/relay.md.

ResultCode CoreUtilsCopyFileToRelay(ZelContainer* params);
