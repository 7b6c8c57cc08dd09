#pragma once

/// Runs the scripts listed in the module's INI file: those of section "RunOnce", each of which is
/// then commented out there, and those of section "Run". They run one after another on this thread;
/// what they answer is not looked at.
void RunStartupScripts();
