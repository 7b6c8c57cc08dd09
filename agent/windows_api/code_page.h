#pragma once

/// The code page that `CP_ACP` stands for, e.g. 1252 (the default) or 65001 for UTF-8. False, with
/// nothing changed, when this system has no such code page. Set once at start, before other threads
/// convert texts.
bool SetSystemCodePage(unsigned codePage);

/// Whether texts of the code page can be converted on this system.
bool IsKnownCodePage(unsigned codePage);
