#pragma once

// An agent that stops does not wait for people.

/// Ends every wait in `SkinDialog::Show` of this process, as if the proxy had been lost, and takes
/// the dialogs down; so from now on it goes with every dialog that is made. Any thread.
void EndDialogWaits();

/// Dialogs may wait again: for an agent that starts after another one in the same process.
void AllowDialogWaits();
