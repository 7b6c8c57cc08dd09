#pragma once

// The agent's run-time library, as far as modules call it.

#include "libZel/archive.h"
#include "libZel/base64.h"
#include "libZel/container.h"
#include "libZel/debug.h"
#include "libZel/directory.h"
#include "libZel/environment.h"
#include "libZel/exec.h"
#include "libZel/file.h"
#include "libZel/http.h"
#include "libZel/ini_file.h"
#include "libZel/mutex.h"
#include "libZel/os_version.h"
#include "libZel/path.h"
#include "libZel/process.h"
#include "libZel/proxy_client.h"
#include "libZel/regex.h"
#include "libZel/string.h"
#include "libZel/text.h"
#include "libZel/url.h"
#include "libZel/vector.h"
