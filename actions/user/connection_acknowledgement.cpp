#include "actions/user/connection_acknowledgement.h"

#include <memory>
#include <utility>

#include "module/direct_access.h"
#include "module/module.h"

namespace {

constexpr int32_t kRefused = 0;
constexpr int32_t kAccepted = 1;
constexpr int32_t kAnotherPending = 2;
constexpr int32_t kNobodyLogged = 3;
constexpr int32_t kUserAbsent = 4;

/// The question on the user's screen, null when there is none. Without a lock on purpose: a request
/// is withdrawn from another thread while the one that asks waits in it, and nothing may hold up
/// either. `SkinDialog` bears a `Close` that comes too late.
SkinDialog* pendingAckDialog = nullptr;

/// On whose behalf the user is asked.
struct Request {
  ZelContainer info;
  ZelString consoleUser;
  ZelString adminName;

  void Audit(const char* event) const { AuditDirectAccess(info, consoleUser, event); }
};

Request ReadRequest(const ZelContainer& params) {
  Request request;
  params.GetContainer(kHttpProtocolRequestInfo, &request.info, kNoIndex);
  request.consoleUser = ReadString(params, kDACurrentConsoleUser);
  request.adminName = ReadString(params, "DisplayAdminName");
  return request;
}

ZelString Translated(const char* key) {
  ZelString text;
  ZelAgentGetTranslation(key, "", text);
  return text;
}

void SetAcknowledge(ZelContainer* params, int32_t value) {
  params->SetInt32("Acknowledge", value, kNoIndex);
}

ResultCode Refuse(const Request& request, int32_t value, const char* event, ZelContainer* params) {
  SetAcknowledge(params, value);
  request.Audit(event);
  return kSuccess;
}

void ReportButton(const Request& request, unsigned int button, ZelContainer* params) {
  switch (button) {
    case SkinDialog::kFirstButton:
      request.Audit("Connection accepted by local user");
      return SetAcknowledge(params, kAccepted);
    case SkinDialog::kSecondButton:
      request.Audit("Connection refused by local user");
      return SetAcknowledge(params, kRefused);
    default:
      // Withdrawn: no answer is an answer of its own.
      request.Audit("Connection aborted by remote administrator");
  }
}

/// Shows the dialog and waits for its end. `error` tells whether the proxy was lost meanwhile.
void AskUser(SkinDialog& dialog, const Request& request, bool& error, ZelContainer* params) {
  request.Audit("Waiting for acknowledgment of local user");

  if (!dialog.IsInitialised(error) || error) return;
  dialog.Show(true, error);
  if (error) return;
  const unsigned int button = dialog.GetButtonClickedID(error);
  if (error) return;
  ReportButton(request, button, params);
}

/// Makes a dialog the pending one as long as this object lives, and deletes it then.
class PendingDialog {
 public:
  explicit PendingDialog(std::unique_ptr<SkinDialog> dialog) : dialog_(std::move(dialog)) {
    pendingAckDialog = dialog_.get();
  }
  ~PendingDialog() {
    dialog_.reset();
    pendingAckDialog = nullptr;
  }
  PendingDialog(const PendingDialog&) = delete;
  PendingDialog& operator=(const PendingDialog&) = delete;

  SkinDialog& Get() { return *dialog_; }

 private:
  std::unique_ptr<SkinDialog> dialog_;
};

}  // namespace

ResultCode CoreUtilsCheckClientAccept(ZelContainer* params) {
  const Request request = ReadRequest(*params);

  ZelString question = Translated("_MESSAGEBOX_DA_ACKNOWLEDGMENTREQUEST_");
  question.ReplaceAll("{AdminName}", request.adminName, true);
  const ZelString yesLabel = Translated("_ACTION_YES_");
  const ZelString noLabel = Translated("_ACTION_NO_");

  params->Clear();
  ZelString pipeName;
  ZelAgentGetProxyPipeName(pipeName);

  if (!IsUserLogged())
    return Refuse(request, kNobodyLogged, "Connection impossible nobody logged", params);
  if (ProxyUtils::IsUserAbsent(pipeName))
    return Refuse(request, kUserAbsent, "Connection impossible user absent", params);
  if (pendingAckDialog) {
    return Refuse(request, kAnotherPending,
                  "Connection impossible now, waiting for another acknowlegment", params);
  }

  bool error = false;
  auto dialog = std::make_unique<SkinDialog>(nullptr, question, yesLabel, noLabel, "",
                                             SkinDialog::BUTTON_YES_NO, pipeName, error, "");
  PendingDialog pending(std::move(dialog));

  if (!error) AskUser(pending.Get(), request, error, params);
  if (error) {
    request.Audit("connection refused: no proxy on host, so user cannot be asked");
    SetAcknowledge(params, kRefused);
  }
  return kSuccess;
}

ResultCode CoreUtilsDestroyAckPopup(ZelContainer*) {
  // Read once: it may be gone at the next look.
  SkinDialog* const dialog = pendingAckDialog;
  if (!dialog) return kSuccess;

  // The waiting request deletes the dialog. It reports what became of it, too.
  bool error = false;
  dialog->Close(error, false);
  return kSuccess;
}
