#include "libZel/skin_dialog.h"

#include <new>

struct SkinDialog::Window {};

SkinDialog::SkinDialog(HINSTANCE, const ZelString&, const ZelString&, const ZelString&,
                       const ZelString&, unsigned int, const ZelString&, bool& error,
                       const ZelString&) {
  error = true;
}
SkinDialog::~SkinDialog() = default;
void SkinDialog::Close(bool& error, bool) {
  error = true;
}
void SkinDialog::Show(bool, bool& error) {
  error = true;
}
bool SkinDialog::IsInitialised(bool& error) {
  error = true;
  return false;
}
unsigned int SkinDialog::GetButtonClickedID(bool& error) {
  error = true;
  return kNoButton;
}
void SkinDialog::RefreshTimerArea() {}
void SkinDialog::RadioButtonProc() {}
void SkinDialog::ProcessButtonAction() {}
void* SkinDialog::GetWindowsHandle() {
  return nullptr;
}
ZelString SkinDialog::GetFormatedCurrentDateTime() {
  return {};
}
int SkinDialog::SkinDialogProc() {
  return 0;
}
int SkinDialog::Run() {
  return 0;
}
bool SkinDialog::InitApplication() {
  return false;
}
bool SkinDialog::InitInstance() {
  return false;
}
void* SkinDialog::operator new(size_t size) {
  return ::operator new(size);
}
void SkinDialog::operator delete(void* memory) noexcept {
  ::operator delete(memory);
}
