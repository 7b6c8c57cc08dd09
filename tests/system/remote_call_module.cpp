#include "libZelCore.h"

// A module whose one action calls an action of another agent, so that the tests can reach one agent
// through another.

namespace {

constexpr uint32_t kRegister = 1;
constexpr uint32_t kDescription = 6;
constexpr uint32_t kVersion = 7;
constexpr uint32_t kDone = 1;
constexpr uint32_t kDefault = ~0U;

/// Reads "Address", "Action" and "Parameters"; writes the other agent's container to "Answer" and
/// returns its code.
uint32_t TestRemoteCall(ZelContainer* parameters) {
  ZelString address;
  ZelString action;
  ZelContainer remote;
  parameters->GetString("Address", &address, kNoIndex);
  parameters->GetString("Action", &action, kNoIndex);
  parameters->GetContainer("Parameters", &remote, kNoIndex);
  parameters->Clear();

  const uint32_t code = ActionDbInvokeContainer(nullptr, address, action, &remote, nullptr,
                                                kDefault, kDefault, false);
  parameters->SetContainer("Answer", remote, kNoIndex);
  return code;
}

void CopyText(const char* text, TCHAR* buffer) {
  while ((*buffer++ = static_cast<TCHAR>(*text++)) != 0) {
  }
}

}  // namespace

extern "C" uint32_t ModuleMain(uint32_t command, uint32_t, TCHAR* buffer) {
  if (command == kRegister) {
    ActionDbRegisterAction("TestRemoteCall (string Address, string Action, container Parameters)",
                           &TestRemoteCall, buffer);
  }
  if (command == kDescription) CopyText("A module for tests", buffer);
  if (command == kVersion) CopyText("1.0", buffer);
  return kDone;
}
