#pragma once

#include "libZel/string.h"

class XmlProxyClient;

/// Starts a program and does not wait for it. Returns 1 when it was started, else 0; the reason
/// goes to the library's log. Throws nothing; any number of threads may call at once.
///
/// `commandLine`  the program, in double quotes when its path holds blanks, and its arguments. They
///                are taken apart like command lines of Windows on every platform: blanks separate,
///                double quotes hold together, and backslashes in front of a double quote escape
///                it. A program without a directory is looked for along the search path; no shell
///                is involved
/// `failed`       set to true when the proxy could not be asked; else left as it was
/// `proxy`        an open connection to the proxy, or null: one is made for the call
/// `proxyPipe`    where the proxy listens; used when `inUserSession` and without `proxy`
/// `reserved1` to `reserved5`   empty, empty, 0, false, null
/// `inUserSession` whether the proxy starts the program, as the logged-on user and in that user's
///                environment; else this process does, with its own rights and environment
/// `reserved6`    false
/// `exitCode`     null
///
/// The program inherits no handles. Its standard streams are empty, and it belongs to a session or
/// process group of its own, so that it outlives the agent.
int ExecRedirect(const ZelString& commandLine, bool& failed, XmlProxyClient* proxy,
                 const ZelString& proxyPipe, const ZelString& reserved1, const ZelString& reserved2,
                 unsigned long reserved3, bool reserved4, bool inUserSession, void* reserved5,
                 bool reserved6, int* exitCode);
