// host/libZel: the desktop lock, dialogs and the logged-on user; host/libZelCore: how the agent
// reaches that user.

#include <new>
#include <string>

#include "tests/fake_host/ask.h"
#include "tests/fake_host/transcript.h"

struct SkinDialog::Window {};

namespace {

bool AskWhether(const std::string& function, const std::string& arguments) {
  return AskAndWork(function, arguments).value != 0;
}

/// Asks an operation of a dialog. One that is made to fail has not reached the proxy.
int64_t AskDialog(const std::string& function, const std::string& arguments, bool& error) {
  constexpr int64_t kFailed = -1;
  const FakeHost::ScriptedAnswer answer = AskAndWork(function, arguments, kFailed);
  if (answer.flag || answer.value == kFailed) error = true;
  return answer.value == kFailed ? 0 : answer.value;
}

SysTray& TheSysTray() {
  static SysTray tray(nullptr);
  return tray;
}

}  // namespace

// ---- host/libZel ----

SkinDialog::SkinDialog(HINSTANCE instance, const ZelString& text, const ZelString& firstButton,
                       const ZelString& secondButton, const ZelString& closeButton,
                       unsigned int buttons, const ZelString& pipeName, bool& error,
                       const ZelString& options) {
  AskDialog("SkinDialog",
            List(Pointer(instance), Quote(text), Quote(firstButton), Quote(secondButton),
                 Quote(closeButton), std::to_string(buttons), Quote(pipeName), Flag(error),
                 Quote(options)),
            error);
}

SkinDialog::~SkinDialog() {
  Host().Hold();  // dialogs do not count
  Host().NoteRelease("~SkinDialog");
}

void SkinDialog::Close(bool& error, bool waitUntilGone) {
  AskDialog("SkinDialog::Close", List(Flag(error), Flag(waitUntilGone)), error);
}

void SkinDialog::Show(bool wait, bool& error) {
  AskDialog("SkinDialog::Show", List(Flag(wait), Flag(error)), error);
}

bool SkinDialog::IsInitialised(bool& error) {
  return AskDialog("SkinDialog::IsInitialised", Flag(error), error) != 0;
}

unsigned int SkinDialog::GetButtonClickedID(bool& error) {
  return static_cast<unsigned int>(AskDialog("SkinDialog::GetButtonClickedID", Flag(error), error));
}

void SkinDialog::RefreshTimerArea() {
  Host().Note("SkinDialog::RefreshTimerArea()");
}

void SkinDialog::RadioButtonProc() {
  Host().Note("SkinDialog::RadioButtonProc()");
}

void SkinDialog::ProcessButtonAction() {
  Host().Note("SkinDialog::ProcessButtonAction()");
}

void* SkinDialog::GetWindowsHandle() {
  Host().Note("SkinDialog::GetWindowsHandle()");
  return nullptr;
}

ZelString SkinDialog::GetFormatedCurrentDateTime() {
  return AskText("SkinDialog::GetFormatedCurrentDateTime");
}

int SkinDialog::SkinDialogProc() {
  Host().Note("SkinDialog::SkinDialogProc()");
  return 0;
}

int SkinDialog::Run() {
  Host().Note("SkinDialog::Run()");
  return 0;
}

bool SkinDialog::InitApplication() {
  Host().Note("SkinDialog::InitApplication()");
  return false;
}

bool SkinDialog::InitInstance() {
  Host().Note("SkinDialog::InitInstance()");
  return false;
}

void* SkinDialog::operator new(size_t size) {
  return ::operator new(size);
}

void SkinDialog::operator delete(void* memory) noexcept {
  ::operator delete(memory);
}

bool ProxyDesktopLockManager::Lock(const ZelString& pipeName) {
  return AskWhether("ProxyDesktopLockManager::Lock", Quote(pipeName));
}

bool ProxyDesktopLockManager::Unlock(const ZelString& pipeName) {
  return AskWhether("ProxyDesktopLockManager::Unlock", Quote(pipeName));
}

bool ProxyDesktopLockManager::SetMessage(const ZelString& pipeName, const ZelString& title,
                                         const ZelString& text) {
  return AskWhether("ProxyDesktopLockManager::SetMessage",
                    List(Quote(pipeName), Quote(title), Quote(text)));
}

bool IsUserLogged() {
  return AskWhether("IsUserLogged", "");
}

bool ProxyUtils::IsUserAbsent(const ZelString& pipeName) {
  return AskWhether("ProxyUtils::IsUserAbsent", Quote(pipeName));
}

void SysTray::ExecuteAsLoggedUser(const ZelString& command) {
  if (this != &TheSysTray()) Host().Complain("the SysTray object is not the agent's own");
  Host().Note("SysTray::ExecuteAsLoggedUser(" + Quote(command) + ")");
}

// ---- host/libZelCore ----

SysTray& ZelAgentGetSysTray() {
  Host().Note("ZelAgentGetSysTray()");
  return TheSysTray();
}
