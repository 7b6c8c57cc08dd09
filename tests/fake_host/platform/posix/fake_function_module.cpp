#include "tests/fake_host/fake_function_module.h"

#include "tests/fake_host/ask.h"
#include "tests/fake_host/platform/posix/fake_library.h"
#include "tests/fake_host/transcript.h"
#include "windows_api.h"

namespace {

FakeLibrary functionModule{{"AddContainerVariable", "SetActionInvokeAddress"}};
FakeLibrary otherLibrary;

template <typename Function>
FARPROC AddressOf(Function* function) {
  return reinterpret_cast<FARPROC>(reinterpret_cast<void*>(function));
}

std::string Lookup(void* library, const char* name) {
  return "GetProcAddress(" + List(Pointer(library), Quote(ZelString(name))) + ")";
}

}  // namespace

void* FunctionModuleHandle() {
  return &functionModule;
}

void* OtherLibraryHandle() {
  return &otherLibrary;
}

std::vector<std::string> FunctionLookups(void* library) {
  return {Lookup(library, "AddContainerVariable"), Lookup(library, "SetActionInvokeAddress")};
}

FARPROC GetProcAddress(HMODULE library, const char* name) {
  if (!Host().NoteAndTest(Lookup(library, name))) return nullptr;
  if (!static_cast<const FakeLibrary*>(library)->exports.contains(name)) return nullptr;
  const std::string function = name;
  if (function == "AddContainerVariable") return AddressOf(NoteAddContainerVariable);
  if (function == "SetActionInvokeAddress") return AddressOf(NoteSetActionInvokeAddress);
  return nullptr;
}
