#include "agent/libZel/dialog_waits.h"

#include "agent/libZel/live_dialogs.h"

void EndDialogWaits() {
  LiveDialogs::Instance().EndWaits();
}

void AllowDialogWaits() {
  LiveDialogs::Instance().AllowWaits();
}
