#pragma once

#include <atomic>

#include "agent/libZelCore/agent_core.h"

/// The core that the functions of libZelCore.h work on; null when there is none.
std::atomic<AgentCore::Implementation*>& ServedCore();
