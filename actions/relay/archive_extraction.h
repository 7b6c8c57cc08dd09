#pragma once

#include "module/action.h"

// Unpacking archives of this machine. What the action reads and answers, and why it may fail, is
// described in docs/actions/relay.md.

ResultCode CoreUtilsExtractFile(ZelContainer* params);
