#include "actions/user/dialogs.h"

#include <utility>

#include "module/module.h"

namespace {

ZelMutex dialogMutex;
/// What `CoreUtilsShowDialog` has shown last; kept also when that failed. Outlives the module.
SkinDialog* shownDialog = nullptr;

void CloseShownDialog(const char* failureText) {
  bool error = false;
  shownDialog->Close(error, false);
  if (error) Logger().ErrorWithNL(failureText);
  delete std::exchange(shownDialog, nullptr);
}

/// `Number` is what the key holds, with a sign or without; the option never has one.
template <typename Number>
void AppendNumber(const ZelContainer& params, const char* key, const char* format,
                  ZelString* options) {
  Number number = 0;
  if (!params.GetInt32(key, &number, kNoIndex)) return;
  ZelString option;
  *options += option.Printf(format, static_cast<uint32_t>(number));
}

/// Returns the text, empty when it is absent.
ZelString AppendText(const ZelContainer& params, const char* key, const char* format,
                     ZelString* options) {
  ZelString text;
  if (!params.GetString(key, &text, kNoIndex)) return text;
  ZelString option;
  *options += option.Printf(format, text);
  return text;
}

struct AdvanceDialog {
  ZelString message;
  ZelString okLabel;
  ZelString cancelLabel;
  /// Each key that is there, as an option.
  ZelString options;

  bool HasTwoButtons() const { return !okLabel.IsEmpty() && !cancelLabel.IsEmpty(); }
  unsigned int Buttons() const {
    return HasTwoButtons() ? SkinDialog::BUTTON_YES_NO : SkinDialog::BUTTON_CLOSE;
  }
  ZelString CloseLabel() const {
    if (okLabel.IsEmpty()) return cancelLabel;
    return cancelLabel.IsEmpty() ? okLabel : ZelString();
  }
  int32_t ResultOf(unsigned int button) const {
    switch (button) {
      case SkinDialog::kFirstButton:
        return 1;
      case SkinDialog::kSecondButton:
        return 0;
      case SkinDialog::kCloseButton:
        return HasTwoButtons() ? 0 : 1;
      default:
        return 2;
    }
  }
};

AdvanceDialog ReadAdvanceDialog(const ZelContainer& params) {
  AdvanceDialog dialog;
  AppendNumber<int32_t>(params, "TimeOut", " -InformationPopupTimeOut %u", &dialog.options);
  dialog.message = AppendText(params, "Message", " -InformationPopup \"%S\"", &dialog.options);
  dialog.okLabel = ReadString(params, "ButtonOK");
  dialog.cancelLabel = ReadString(params, "ButtonCancel");
  AppendText(params, "Path", " -ImagePath \"%S\"", &dialog.options);
  AppendText(params, "Title", " -n \"%S\"", &dialog.options);
  AppendNumber<uint32_t>(params, "TopMost", " -TopMost %u", &dialog.options);
  return dialog;
}

/// Shows the dialog, waits for its end and writes what the user chose. Writes nothing when the user
/// could not be asked.
void AskUser(const AdvanceDialog& asked, ZelContainer* params) {
  ZelString pipeName;
  ZelAgentGetProxyPipeName(pipeName);
  bool error = false;
  SkinDialog dialog(nullptr, asked.message, asked.okLabel, asked.cancelLabel, asked.CloseLabel(),
                    asked.Buttons(), pipeName, error, asked.options);
  if (error || !dialog.IsInitialised(error) || error) return;

  dialog.Show(true, error);
  if (error) return;
  const unsigned int button = dialog.GetButtonClickedID(error);
  if (error) return;
  params->SetInt32(kResult, asked.ResultOf(button), kNoIndex);
}

}  // namespace

ResultCode CoreUtilsShowDialog(ZelContainer* params) {
  const ZelMutexLock lock(dialogMutex);
  const ZelString message = ReadString(*params, "Message");
  params->Clear();

  if (shownDialog) CloseShownDialog("Cannot reach the proxy to close the previous dialog box !");

  ZelString pipeName;
  ZelAgentGetProxyPipeName(pipeName);
  bool error = false;
  shownDialog = new SkinDialog(nullptr, message, "", "", "", SkinDialog::BUTTON_NO_BUTTON, pipeName,
                               error, "");

  if (!error && shownDialog->IsInitialised(error) && !error) {
    shownDialog->Show(false, error);
  } else {
    Logger().ErrorWithNL("Cannot display the message box !");
  }
  return kSuccess;
}

ResultCode CoreUtilsCloseDialog(ZelContainer*) {
  const ZelMutexLock lock(dialogMutex);
  if (shownDialog) CloseShownDialog("Cannot reach the proxy to close the dialog box !");
  return kSuccess;
}

ResultCode CoreUtilsAdvanceDialog(ZelContainer* params) {
  const AdvanceDialog asked = ReadAdvanceDialog(*params);
  params->Clear();

  AskUser(asked, params);

  if (params->CountValues(kResult) == 0) params->SetInt32(kResult, 0, kNoIndex);
  return kSuccess;
}
