#pragma once

#include "libZel/string.h"

/// Told of the progress of a transfer: the caller's own pointer, the bytes received so far and the
/// bytes expected in all (0 when not known). Returns 0 to go on, anything else to give up. Must not
/// throw.
using CurlProgress = int (*)(void* userData, long long received, long long expected);

/// Fetches `url` (http or https; without a scheme, http) with GET and drops the body.
///
/// `user` and `password` are the server's, when it asks for any; `proxy` (a URL) with `proxyUser`
/// and `proxyPassword` is a proxy to go through. Without `proxy` the variables of the agent's
/// environment decide (http_proxy, https_proxy, no_proxy). `startOffset` is the first byte asked
/// for. The whole exchange takes at most `timeoutSeconds`; `received` becomes the number of bytes
/// of the body that came, also on failure. With `failOnErrorStatus` a status of 400 or above is a
/// failure. Up to ten redirects are followed; a server's certificate must be valid, by the system's
/// trusted authorities or those of the agent's configuration. `progress` may be null.
///
/// Returns 1 on success; 0 otherwise, with the reason in the library's log, where neither
/// credentials nor the query of a URL stand. Throws nothing; any number of threads may call at
/// once.
int CurlAdvancedGet(ZelString url, ZelString user, ZelString password, ZelString proxy,
                    ZelString proxyUser, ZelString proxyPassword, long long startOffset,
                    long timeoutSeconds, long long& received, bool failOnErrorStatus,
                    CurlProgress progress, void* userData);
