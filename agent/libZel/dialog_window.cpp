#include "agent/libZel/dialog_window.h"

#include <utility>

#include "agent/libZel/debug_context.h"
#include "agent/libZel/native_path.h"
#include "agent/libZel/proxy_connection.h"
#include "agent/libZel/whole_number.h"
#include "libZel/skin_dialog.h"

using proxy_protocol::After, proxy_protocol::Deadline, proxy_protocol::Field,
    proxy_protocol::Message, proxy_protocol::StopSignal;

namespace {

/// As long as a person takes.
constexpr Deadline kEver = Deadline::max();

// The proxy knows nothing of the agent's drives.
std::string NativeImagePath(const std::string& path) {
  if (path.empty()) return {};
  const NativePath native = ToNativePath(path);
  if (native) return std::string(FromNativePath(native.path).Utf8());
  LibraryLog().WarningWithNL("a dialog goes without its image \"%S\": %S", path, native.error);
  return {};
}

// Nothing that a proxy says makes a dialog end with a button that it does not have.
bool HasButton(unsigned int buttons, unsigned int button) {
  switch (button) {
    case SkinDialog::kNoButton:
      return true;
    case SkinDialog::kFirstButton:
    case SkinDialog::kSecondButton:
      return buttons == SkinDialog::BUTTON_YES_NO;
    case SkinDialog::kCloseButton:
      return buttons == SkinDialog::BUTTON_CLOSE;
    default:
      return false;
  }
}

}  // namespace

DialogWindow::DialogWindow(const ZelString& pipe)
    : pipe_(pipe), stop_(std::make_shared<StopSignal>()) {}

bool DialogWindow::Create(const DialogRequest& request) {
  const std::lock_guard lock(mutex_);
  // Also when what follows throws.
  isReached_ = false;
  if (isAbandoned_) return LogFailure("made", "the agent is stopping");
  connection_ = OpenProxyConnection(pipe_, kProxyTimeoutMs, stop_);
  isReached_ = connection_ && AskToCreate(request);
  return isReached_;
}

bool DialogWindow::AskToCreate(const DialogRequest& request) {
  const DialogOptions& options = request.options;
  const Answer answer =
      connection_->Ask("dialog-create", {{"text", request.text},
                                         {"buttons", std::to_string(request.buttons)},
                                         {"firstButton", request.firstButton},
                                         {"secondButton", request.secondButton},
                                         {"closeButton", request.closeButton},
                                         {"title", options.title},
                                         {"imagePath", NativeImagePath(options.imagePath)},
                                         {"timeoutS", std::to_string(options.timeoutS)},
                                         {"topMost", options.staysOnTop ? "1" : "0"}});
  if (!answer.reply) return LogFailure("made", answer.error);
  if (answer.reply->code != 0) {
    LogFailure("made", WhyFailed(answer));
    return true;
  }
  const std::string* const told = answer.reply->Find("dialog");
  const auto number = told ? ReadWholeNumber<uint32_t>(*told) : std::nullopt;
  if (!number) return LogFailure("made", "the proxy tells no number for it");
  buttons_ = request.buttons;
  proxy_ = connection_->Proxy();
  number_ = *number;
  return true;
}

bool DialogWindow::Show(bool wait) {
  const std::lock_guard lock(mutex_);
  if (!connection_ || !IsMade()) return LogFailure("shown", "there is none");
  if (std::exchange(isShown_, true)) return LogFailure("shown", "it has been shown before");

  // In this order, and the other way round in `Close`: one of them sees the other.
  isWaiting_ = wait;
  if (isClosed_) {
    isWaiting_ = false;
    button_ = SkinDialog::kNoButton;
    return true;
  }
  const Answer answer =
      connection_->Ask("dialog-show", Fields("wait", wait),
                       wait ? kEver : After(std::chrono::milliseconds(kProxyTimeoutMs)));
  isWaiting_ = false;
  return EndShow(answer, wait);
}

bool DialogWindow::EndShow(const Answer& answer, bool wait) {
  if (!answer.reply && wait && isWithdrawn_ && !isAbandoned_) {
    button_ = SkinDialog::kNoButton;
    return true;
  }
  if (const std::string why = WhyFailed(answer); !why.empty()) return LogFailure("shown", why);
  if (!wait) return true;
  button_ = ReadButton(*answer.reply);
  if (!button_) connection_.reset();
  return button_.has_value() || LogFailure("shown", "the proxy does not tell how it ended");
}

bool DialogWindow::Close(bool waitUntilGone) {
  isClosed_ = true;
  if (!IsReached()) return LogFailure("closed", "its proxy was never reached");
  if (!IsMade()) return true;
  const bool isTold = TellToClose(waitUntilGone);
  if (!isTold) {
    Abandon();
    return false;
  }
  // Who waits does not depend on the proxy for it any more.
  isWithdrawn_ = true;
  if (isWaiting_) stop_->Raise();
  return true;
}

bool DialogWindow::TellToClose(bool waitUntilGone) {
  if (isAbandoned_) return LogFailure("closed", "its connection was dropped");
  // Connecting and telling take this long together.
  const Deadline deadline = After(std::chrono::milliseconds(kProxyTimeoutMs));
  // The dialog's own connection may be in use by `Show`.
  const auto connection = OpenProxyConnection(pipe_, kProxyTimeoutMs);
  if (!connection) return false;
  // Another proxy has taken the place of the one with which the dialog went: numbers mean other
  // dialogs there.
  if (connection->Proxy() != proxy_) return true;
  const Answer answer = connection->Ask("dialog-close", Fields("wait", waitUntilGone), deadline);
  const std::string why = WhyFailed(answer);
  return why.empty() || LogFailure("closed", why);
}

std::optional<unsigned int> DialogWindow::Button() {
  const std::lock_guard lock(mutex_);
  if (button_) return button_;
  if (!connection_ || !IsMade()) {
    LogFailure("asked for", "there is none");
    return std::nullopt;
  }
  const Answer answer = connection_->Ask("dialog-state", {{"dialog", std::to_string(number_)}});
  if (const std::string why = WhyFailed(answer); !why.empty()) {
    LogFailure("asked for", why);
    return std::nullopt;
  }
  const std::string* const isOpen = answer.reply->Find("isOpen");
  const auto button = ReadButton(*answer.reply);
  const bool isClear = button && isOpen &&
                       (*isOpen == "no" || (*isOpen == "yes" && *button == SkinDialog::kNoButton));
  if (isClear) return button;
  LogFailure("asked for", "the proxy does not tell its state");
  return std::nullopt;
}

void DialogWindow::Drop() {
  const std::lock_guard lock(mutex_);
  connection_.reset();
}

void DialogWindow::Abandon() {
  isAbandoned_ = true;
  stop_->Raise();
  // Who holds the mutex lets go of it at once now.
  Drop();
}

std::optional<unsigned int> DialogWindow::ReadButton(const Message& reply) const {
  const std::string* const told = reply.Find("button");
  const auto button = told ? ReadWholeNumber<unsigned int>(*told) : std::nullopt;
  if (!button || !HasButton(buttons_, *button)) return std::nullopt;
  return button;
}

std::vector<Field> DialogWindow::Fields(const char* field, bool value) const {
  return {{"dialog", std::to_string(number_)}, {field, value ? "1" : "0"}};
}

bool DialogWindow::LogFailure(const char* what, const std::string& why) const {
  LibraryLog().WarningWithNL("the dialog at \"%S\" cannot be %s: %S", pipe_, what, why);
  return false;
}
