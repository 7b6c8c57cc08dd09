#include "tests/fake_host/fake_function_module.h"

#include <windows.h>

extern "C" {

__declspec(dllexport) void AddContainerVariable(MarlinContext* context, ZelContainer* container) {
  NoteAddContainerVariable(context, container);
}

__declspec(dllexport) void SetActionInvokeAddress(decltype(&ActionDbInvokeContainer) invoke) {
  NoteSetActionInvokeAddress(invoke);
}

}  // extern "C"

void* FunctionModuleHandle() {
  return GetModuleHandleW(nullptr);
}

void* OtherLibraryHandle() {
  return GetModuleHandleW(L"kernel32.dll");
}

std::vector<std::string> FunctionLookups(void*) {
  return {};
}
