#pragma once

#include <string>
#include <vector>

#include "function_module.h"

// What scripts are given beside the engine: the function module, whose two functions note their
// calls. On Windows the system itself looks them up, in the running test program, which exports
// them.

/// The handle of a function module.
void* FunctionModuleHandle();
/// The handle of a library that exports neither function.
void* OtherLibraryHandle();
/// The transcript's lines while both functions of this library are looked up; none where the system
/// does that.
std::vector<std::string> FunctionLookups(void* library);

/// What the functions do.
void NoteAddContainerVariable(MarlinContext* context, ZelContainer* container);
void NoteSetActionInvokeAddress(decltype(&ActionDbInvokeContainer) invoke);
