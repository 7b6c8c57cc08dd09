#pragma once

#include "module/action.h"

// The Windows network as this machine sees it. Both actions clear the container and log nothing;
// `Values` is a list of names (texts) in the system's order, absent when there are none.

/// Lists the domains and workgroups. kFailure, with an empty container, when the system cannot.
ResultCode CoreUtilsListDomains(ZelContainer* params);

/// Lists the computers of the domain `DomainName` (up to 63 characters), or, when it is empty or
/// absent, of the computer's own. kFailure, with an empty container, when the system cannot.
ResultCode CoreUtilsListServers(ZelContainer* params);
