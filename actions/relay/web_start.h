#pragma once

#include "module/action.h"

// What the master's installation needs: the web-start descriptors of the administration console,
// and where attachments go. What the actions read and answer is described in
// docs/actions/web-start.md.

ResultCode CoreUtilsConfigureJWS(ZelContainer* params);
ResultCode CoreUtilsGetMasterAttachmentsPath(ZelContainer* params);
