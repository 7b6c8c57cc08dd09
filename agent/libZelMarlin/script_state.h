#pragma once

#include <lauxlib.h>
#include <lua.h>

#include <cstddef>
#include <cstdio>
#include <exception>
#include <new>

#include "libZelMarlin.h"

// What a function module adds functions to scripts with. A module may export
//
//     extern "C" void MarlinModuleOpen(MarlinContext* context);
//
// The engine calls it for each context that loads the module, before anything of a script is
// compiled. It lets nothing escape: neither exceptions nor errors of Lua.

class Interpreter;

using MarlinModuleOpenFunction = void (*)(MarlinContext* context);

/// Runs `body` in the context's interpreter, which is made if need be, with `argument` as a light
/// userdata at index 1 of an otherwise empty stack. False when it raised an error, or when there is
/// no interpreter for want of memory; the reason is in the library's log. Throws nothing.
bool RunInScript(MarlinContext& context, lua_CFunction body, void* argument) noexcept;

/// The context that a function runs in; coroutines belong to their context.
MarlinContext& ContextOf(lua_State* L);

/// The script's file name, for lines of the log; "script" before it is known.
const char* ScriptName(lua_State* L);

/// The name of the handle variable that stands for `object`; empty when there is none. Throws only
/// for want of memory.
ZelString HandleVariableName(const MarlinContext& context, const void* object);

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
