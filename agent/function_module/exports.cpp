#include "function_module.h"

extern "C" void AddContainerVariable(MarlinContext*, ZelContainer* container) {
  delete container;
}

extern "C" void SetActionInvokeAddress(decltype(&ActionDbInvokeContainer)) {}
