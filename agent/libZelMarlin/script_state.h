#pragma once

#include <lauxlib.h>
#include <lua.h>

#include <cstddef>
#include <cstdio>
#include <exception>
#include <memory>
#include <new>

#include "libZel/container.h"
#include "libZelMarlin.h"

// What a function module adds functions to scripts with. A module may export
//
//     extern "C" void MarlinModuleOpen(MarlinContext* context);
//
// The engine calls it for each context that loads the module, before anything of a script is
// compiled. It lets nothing escape: neither exceptions nor errors of Lua.

class Interpreter;

using MarlinModuleOpenFunction = void (*)(MarlinContext* context);

/// Runs `body` in the context's interpreter, which is made if need be, on an empty stack. False
/// when it raised an error, or when there is no interpreter for want of memory: the reason is in
/// the library's log, and the context runs no procedure, but fails with that error.
bool RunInScript(MarlinContext& context, lua_CFunction body, void* argument) noexcept;

/// The argument of `RunInScript`, for its body, which takes it before anything of a script can run.
/// An error of the script where there is none, so that scripts can call the body without harm.
void* TakeArgument(lua_State* L);

/// Keeps `container` for as long as the context lives, its script's finalizers included. False
/// for want of memory: it is gone then, and the context runs no procedure, but fails with
/// `kMarlinMemory`.
bool KeepContainer(MarlinContext& context, std::unique_ptr<ZelContainer> container) noexcept;

/// The context that a function runs in; coroutines belong to their context.
MarlinContext& ContextOf(lua_State* L);

/// The script's file name, for lines of the log; "script" before it is known.
const char* ScriptName(lua_State* L);

/// The handle variable that stands for `object`; null when there is none.
VarHandle* FindHandleVariable(const MarlinContext& context, const void* object) noexcept;

/// Whether the last finalizers of the script run. What is made from now on is not finalized.
bool IsClosing(lua_State* L);

/// Counts work that a function does in proportion to what it was given, as that many instructions
/// of the script. May end the script.
void CountWork(lua_State* L, size_t steps);

/// Raises the error that tells of too little memory.
[[noreturn]] void RaiseMemoryError(lua_State* L);

/// Memory that belongs to a script without being the interpreter's own: it counts towards the
/// script's limit.
class ScriptMemory {
 public:
  explicit ScriptMemory(lua_State* L);
  ~ScriptMemory();
  ScriptMemory(const ScriptMemory&) = delete;
  ScriptMemory& operator=(const ScriptMemory&) = delete;

  /// Counts `bytes` more. False, with nothing counted, when the script would have more than it may
  /// even without its garbage, which is collected then: `L` is the coroutine that runs.
  bool Add(lua_State* L, size_t bytes);
  /// Counts `bytes` in all from now on, whatever the limit says.
  void Set(size_t bytes);
  size_t Bytes() const { return bytes_; }

 private:
  Interpreter& interpreter_;
  size_t bytes_ = 0;
};

/// `Function` for Lua: its exceptions become errors of Lua. Lua's own errors, which are exceptions
/// of another kind, pass.
template <int (*Function)(lua_State*)>
int ForScript(lua_State* L) {
  char reason[256];
  try {
    return Function(L);
  } catch (const std::bad_alloc&) {
    reason[0] = '\0';
  } catch (const std::exception& error) {
    std::snprintf(reason, sizeof reason, "%s", error.what());
  }
  if (reason[0] == '\0') RaiseMemoryError(L);
  return luaL_error(L, "%s", reason);
}
