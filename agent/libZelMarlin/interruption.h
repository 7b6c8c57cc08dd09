#pragma once

// Ends scripts from outside, for a process that stops. Any thread may call, also while scripts run;
// nothing here throws or waits.

/// All scripts of this process end soon with `kMarlinInterrupted`, whatever they catch: those that
/// run, and those that are started from now on before anything of them runs. A script that is in a
/// call of a library (`os.execute`, `io.read`, a pattern that tries many ways, an action) ends when
/// the call returns, so that there is no bound: wait for scripts with a timeout.
void InterruptScripts();

/// Scripts that are started from now on run again. For tests: an agent that stops does not go on.
void AllowScripts();

/// Whether scripts are to end.
bool ScriptsAreInterrupted();
