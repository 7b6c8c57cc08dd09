#include "agent/libZelMarlin/script_libraries.h"

#include <lauxlib.h>
#include <lualib.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <filesystem>
#include <limits>
#include <string_view>
#include <system_error>

#include "agent/libZel/debug_context.h"
#include "agent/libZel/native_path.h"
#include "agent/libZelMarlin/finalizers.h"
#include "agent/libZelMarlin/interpreter.h"
#include "agent/libZelMarlin/script_source.h"
#include "agent/libZelMarlin/script_state.h"

namespace {

constexpr size_t kMostPrintedBytes = 65536;

/// Functions of Lua's libraries that ours call. They are in the registry, out of the reach of
/// scripts, under the addresses of these.
enum Original : size_t {
  kLoad,
  kCloseCoroutine,
  kQueryLocale,
  kGetInfo,
  kGetLocal,
  kGetUpvalue,
  kUpvalueId,
  kOriginalCount
};
constexpr std::array<char, kOriginalCount> kOriginals{};

std::string_view TextAt(lua_State* L, int index) {
  size_t length = 0;
  const char* const text = lua_tolstring(L, index, &length);
  return {text, length};
}

// What is printed.

int Print(lua_State* L) {
  std::string line;
  const int count = lua_gettop(L);
  for (int i = 1; i <= count; ++i) {
    luaL_tolstring(L, i, nullptr);
    if (i > 1) line += '\t';
    line += TextAt(L, -1).substr(0, kMostPrintedBytes - std::min(line.size(), kMostPrintedBytes));
    lua_pop(L, 1);
  }
  LibraryLog().PrintWithNL("%s: %S", ScriptName(L), ZelString(line));
  return 0;
}

// The end of the script. Whatever catches errors passes its end on.

void PassEndOn(lua_State* L) {
  Interpreter& interpreter = Interpreter::Of(L);
  if (interpreter.IsEnding()) interpreter.GoOnEnding(L);
}

int Exit(lua_State* L) {
  int code = 0;
  if (lua_isboolean(L, 1)) {
    code = lua_toboolean(L, 1) != 0 ? 0 : 1;
  } else {
    code = static_cast<int>(luaL_optinteger(L, 1, 0));
  }
  using End = Interpreter::End;
  const End end = code == 0 ? End::kExit : End::kExitWithFailure;
  Interpreter::Of(L).EndScript(L, end, "the script has ended itself with " + std::to_string(code));
}

int FinishCatching(lua_State* L, int status, lua_KContext hiddenValues) {
  PassEndOn(L);
  if (status != LUA_OK && status != LUA_YIELD) {
    lua_pushboolean(L, 0);
    lua_pushvalue(L, -2);
    return 2;
  }
  return lua_gettop(L) - static_cast<int>(hiddenValues);
}

int ProtectedCall(lua_State* L) {
  luaL_checkany(L, 1);
  lua_pushboolean(L, 1);
  lua_insert(L, 1);
  const int status = lua_pcallk(L, lua_gettop(L) - 2, LUA_MULTRET, 0, 0, FinishCatching);
  return FinishCatching(L, status, 0);
}

/// A handler of `xpcall`. Those of scripts are not called at the script's end: Lua would not count
/// their instructions then.
int HandleError(lua_State* L) {
  lua_settop(L, 1);
  if (Interpreter::Of(L).IsEnding()) return 1;
  lua_pushvalue(L, lua_upvalueindex(1));
  lua_insert(L, 1);
  lua_call(L, 1, 1);
  return 1;
}

int ProtectedCallWithHandler(lua_State* L) {
  luaL_checktype(L, 2, LUA_TFUNCTION);
  const int argumentCount = lua_gettop(L) - 2;
  lua_pushvalue(L, 2);
  lua_pushcclosure(L, HandleError, 1);
  lua_replace(L, 2);
  lua_pushboolean(L, 1);
  lua_pushvalue(L, 1);
  lua_rotate(L, 3, 2);
  const int status = lua_pcallk(L, argumentCount, LUA_MULTRET, 2, 2, FinishCatching);
  return FinishCatching(L, status, 2);
}

// Coroutines.

int CreateCoroutine(lua_State* L) {
  luaL_checktype(L, 1, LUA_TFUNCTION);
  Interpreter::Of(L).CountCoroutine(L);
  lua_State* const coroutine = lua_newthread(L);
  lua_pushvalue(L, 1);
  lua_xmove(L, coroutine, 1);
  return 1;
}

/// Resumes with the `count` values on top of the stack. Leaves the results there and returns how
/// many they are; -1 with an error object on top.
int ResumeWith(lua_State* L, lua_State* coroutine, int count) {
  if (lua_checkstack(coroutine, count) == 0) {
    lua_pushliteral(L, "too many arguments to resume");
    return -1;
  }
  lua_xmove(L, coroutine, count);
  int resultCount = 0;
  const int status = lua_resume(coroutine, L, count, &resultCount);
  PassEndOn(L);
  if (status != LUA_OK && status != LUA_YIELD) {
    lua_xmove(coroutine, L, 1);
    return -1;
  }
  if (lua_checkstack(L, resultCount + 1) == 0) {
    lua_pop(coroutine, resultCount);
    lua_pushliteral(L, "too many results to resume");
    return -1;
  }
  lua_xmove(coroutine, L, resultCount);
  return resultCount;
}

int ResumeCoroutine(lua_State* L) {
  lua_State* const coroutine = lua_tothread(L, 1);
  luaL_argexpected(L, coroutine != nullptr, 1, "coroutine");
  const int count = ResumeWith(L, coroutine, lua_gettop(L) - 1);
  if (count < 0) {
    lua_pushboolean(L, 0);
    lua_insert(L, -2);
    return 2;
  }
  lua_pushboolean(L, 1);
  lua_insert(L, -(count + 1));
  return count + 1;
}

int CallWrapped(lua_State* L) {
  lua_State* const coroutine = lua_tothread(L, lua_upvalueindex(1));
  const int count = ResumeWith(L, coroutine, lua_gettop(L));
  if (count >= 0) return count;

  const int status = lua_status(coroutine);
  if (status != LUA_OK && status != LUA_YIELD) {
    // Its variables to be closed are closed now, which can replace the error.
    if (lua_checkstack(coroutine, 1) != 0) {
      lua_pushvalue(L, -1);
      lua_xmove(L, coroutine, 1);
    }
    if (lua_resetthread(coroutine) != LUA_OK) lua_xmove(coroutine, L, 1);
    PassEndOn(L);
  }
  if (status != LUA_ERRMEM && lua_type(L, -1) == LUA_TSTRING) {
    luaL_where(L, 1);
    lua_insert(L, -2);
    lua_concat(L, 2);
  }
  return lua_error(L);
}

int WrapCoroutine(lua_State* L) {
  CreateCoroutine(L);
  lua_pushcclosure(L, ForScript<CallWrapped>, 1);
  return 1;
}

/// Calls the original, and passes the script's end on if it was caught there.
template <Original kWhich>
int CallOriginal(lua_State* L) {
  lua_rawgetp(L, LUA_REGISTRYINDEX, &kOriginals[kWhich]);
  lua_insert(L, 1);
  lua_call(L, lua_gettop(L) - 1, LUA_MULTRET);
  PassEndOn(L);
  return lua_gettop(L);
}

/// Keeps the function `name` of the table on top for `CallOriginal`.
void KeepOriginal(lua_State* L, const char* name, Original original) {
  lua_getfield(L, -1, name);
  lua_rawsetp(L, LUA_REGISTRYINDEX, &kOriginals[original]);
}

// Texts of programs, never compiled ones.

/// The mode to load with, given the one at `index`.
const char* TextMode(lua_State* L, int index) {
  const char* const asked = luaL_optstring(L, index, "t");
  return std::strchr(asked, 't') != nullptr ? "t" : "";
}

int Load(lua_State* L) {
  if (lua_gettop(L) < 3) lua_settop(L, 3);
  lua_pushstring(L, TextMode(L, 3));
  lua_replace(L, 3);
  return CallOriginal<kLoad>(L);
}

/// Pushes the compiled file, or false and why not. `environment` is the index of its environment,
/// or 0.
bool PushFile(lua_State* L, const char* mode, int environment) {
  const ZelString path(TextAt(L, 1));
  const ScriptSource source = ReadScriptSource(path);
  if (source.error != kMarlinOk) {
    const std::string_view reason = source.reason.Utf8();
    lua_pushlstring(L, reason.data(), reason.size());
    return false;
  }
  const std::string chunkName = "@" + std::string(TextAt(L, 1));
  const int status =
      luaL_loadbufferx(L, source.text.data(), source.text.size(), chunkName.c_str(), mode);
  if (status != LUA_OK) return false;
  if (environment != 0) {
    lua_pushvalue(L, environment);
    if (lua_setupvalue(L, -2, 1) == nullptr) lua_pop(L, 1);
  }
  return true;
}

int LoadFile(lua_State* L) {
  luaL_checkstring(L, 1);
  const char* const mode = TextMode(L, 2);
  if (PushFile(L, mode, lua_isnone(L, 3) ? 0 : 3)) return 1;
  luaL_pushfail(L);
  lua_insert(L, -2);
  return 2;
}

int FinishFile(lua_State* L, int, lua_KContext) {
  return lua_gettop(L) - 1;
}

int DoFile(lua_State* L) {
  luaL_checkstring(L, 1);
  lua_settop(L, 1);
  if (!PushFile(L, "t", 0)) return lua_error(L);
  lua_callk(L, 0, LUA_MULTRET, 0, FinishFile);
  return FinishFile(L, 0, 0);
}

// Modules.

bool IsFile(const std::string& path) {
  const NativePath native = ToNativePath(path);
  std::error_code ignored;
  return native && std::filesystem::is_regular_file(native.path, ignored);
}

std::string Replaced(std::string_view text, std::string_view from, std::string_view to) {
  std::string result;
  for (size_t at = 0; at < text.size();) {
    const bool found = text.substr(at).starts_with(from);
    result += found ? to : text.substr(at, 1);
    at += found ? from.size() : 1;
  }
  return result;
}

/// The file of module `name`; else what was looked for, as `require` tells it.
bool FindModule(std::string_view name, std::string_view templates, std::string* path,
                std::string* tried) {
  const std::string fileName = Replaced(name, ".", "/");
  while (!templates.empty()) {
    const size_t end = std::min(templates.find(';'), templates.size());
    *path = Replaced(templates.substr(0, end), "?", fileName);
    if (!path->empty() && IsFile(*path)) return true;
    *tried += (tried->empty() ? "no file '" : "\n\tno file '") + *path + "'";
    templates.remove_prefix(std::min(end + 1, templates.size()));
  }
  return false;
}

int SearchModule(lua_State* L) {
  const std::string name(luaL_checkstring(L, 1));
  if (lua_getfield(L, lua_upvalueindex(1), "path") != LUA_TSTRING) {
    return luaL_error(L, "'package.path' must be a string");
  }
  std::string path;
  std::string tried;
  const bool isFound = FindModule(name, TextAt(L, -1), &path, &tried);
  lua_settop(L, 0);
  const std::string& answer = isFound ? path : tried;
  lua_pushlstring(L, answer.data(), answer.size());
  if (!isFound) return 1;

  if (!PushFile(L, "t", 0)) {
    return luaL_error(L, "error loading module '%s' from file '%s':\n\t%s", name.c_str(),
                      path.c_str(), lua_tostring(L, -1));
  }
  lua_insert(L, 1);
  return 2;
}

void ChangePackageLibrary(lua_State* L) {
  lua_getglobal(L, "package");
  lua_pushliteral(L, "");
  lua_setfield(L, -2, "cpath");
  lua_pushnil(L);
  lua_setfield(L, -2, "loadlib");

  // What is loaded already, then files; never libraries of machine code.
  lua_getfield(L, -1, "searchers");
  lua_pushvalue(L, -2);
  lua_pushcclosure(L, ForScript<SearchModule>, 1);
  lua_rawseti(L, -2, 2);
  for (const int searcher : {3, 4}) {
    lua_pushnil(L);
    lua_rawseti(L, -2, searcher);
  }
  lua_pop(L, 2);
}

// What is left.

/// Files and the agent's own objects keep their metatables to themselves: a finalizer put there
/// would escape the limits.
int GetMetatable(lua_State* L) {
  luaL_checkany(L, 1);
  if (lua_type(L, 1) == LUA_TUSERDATA) {
    lua_pushboolean(L, 0);
    return 1;
  }
  if (lua_getmetatable(L, 1) == 0) {
    lua_pushnil(L);
    return 1;
  }
  luaL_getmetafield(L, 1, "__metatable");
  return 1;
}

/// The locale belongs to the whole process.
int SetLocale(lua_State* L) {
  if (lua_isnoneornil(L, 1)) return CallOriginal<kQueryLocale>(L);
  luaL_checkstring(L, 1);
  luaL_pushfail(L);
  return 1;
}

// Looking into functions. What the engine's own functions work with stays hidden: functions that
// are not made for scripts, and values that would get around the limits.

/// Adds to the level among the arguments, if there is one, the call of the original.
void PassLevelOn(lua_State* L) {
  const int place = lua_isthread(L, 1) ? 2 : 1;
  if (place == 2 && lua_tothread(L, 1) != L) return;
  int isLevel = 0;
  const lua_Integer level = lua_tointegerx(L, place, &isLevel);
  if (isLevel == 0 || level < 0 || level >= std::numeric_limits<int>::max()) return;
  lua_pushinteger(L, level + 1);
  lua_replace(L, place);
}

int GetInfo(lua_State* L) {
  PassLevelOn(L);
  CallOriginal<kGetInfo>(L);
  if (!lua_istable(L, -1)) return 1;
  if (lua_getfield(L, -1, "func") == LUA_TFUNCTION && lua_iscfunction(L, -1) != 0) {
    lua_pushnil(L);
    lua_setfield(L, -3, "func");
  }
  lua_pop(L, 1);
  return 1;
}

/// Only variables that have names: the other places of a stack may still hold what a function of
/// the engine has left there.
int GetLocal(lua_State* L) {
  PassLevelOn(L);
  const int count = CallOriginal<kGetLocal>(L);
  const bool isNamed = lua_type(L, 1) == LUA_TSTRING && !TextAt(L, 1).ends_with("temporary)");
  if (isNamed) return count;
  luaL_pushfail(L);
  return 1;
}

template <Original kWhich>
int LookAtUpvalue(lua_State* L) {
  luaL_checktype(L, 1, LUA_TFUNCTION);
  if (lua_iscfunction(L, 1) == 0) return CallOriginal<kWhich>(L);
  luaL_pushfail(L);
  return 1;
}

/// Of the debug library stays what looks and changes nothing. Its other functions could take off
/// limits, change what the agent's own functions rely on, or wait for a person.
void ChangeDebugLibrary(lua_State* L) {
  constexpr std::array<luaL_Reg, 6> kFunctions{{
      {"getinfo", ForScript<GetInfo>},
      {"getlocal", ForScript<GetLocal>},
      {"getmetatable", ForScript<GetMetatable>},
      {"getupvalue", ForScript<LookAtUpvalue<kGetUpvalue>>},
      {"upvalueid", ForScript<LookAtUpvalue<kUpvalueId>>},
      {nullptr, nullptr},
  }};
  lua_getglobal(L, LUA_DBLIBNAME);
  KeepOriginal(L, "getinfo", kGetInfo);
  KeepOriginal(L, "getlocal", kGetLocal);
  KeepOriginal(L, "getupvalue", kGetUpvalue);
  KeepOriginal(L, "upvalueid", kUpvalueId);
  lua_createtable(L, 0, kFunctions.size());
  lua_getfield(L, -2, "traceback");
  lua_setfield(L, -2, "traceback");
  luaL_setfuncs(L, kFunctions.data(), 0);
  luaL_getsubtable(L, LUA_REGISTRYINDEX, LUA_LOADED_TABLE);
  lua_pushvalue(L, -2);
  lua_setfield(L, -2, LUA_DBLIBNAME);
  lua_pop(L, 1);
  lua_setglobal(L, LUA_DBLIBNAME);
  lua_pop(L, 1);
}

/// Replaces functions of the table on top.
void Replace(lua_State* L, std::initializer_list<luaL_Reg> functions) {
  for (const luaL_Reg& function : functions) {
    lua_pushcfunction(L, function.func);
    lua_setfield(L, -2, function.name);
  }
}

}  // namespace

void OpenScriptLibraries(lua_State* L) {
  // The environment's LUA_PATH and the like are not for scripts of the agent.
  lua_pushboolean(L, 1);
  lua_setfield(L, LUA_REGISTRYINDEX, "LUA_NOENV");
  luaL_openlibs(L);
  PrepareFinalizers(L);

  lua_pushglobaltable(L);
  KeepOriginal(L, "load", kLoad);
  Replace(L, {{"print", ForScript<Print>},
              {"pcall", ForScript<ProtectedCall>},
              {"xpcall", ForScript<ProtectedCallWithHandler>},
              {"load", ForScript<Load>},
              {"loadfile", ForScript<LoadFile>},
              {"dofile", ForScript<DoFile>},
              {"getmetatable", ForScript<GetMetatable>},
              {"setmetatable", ForScript<SetMetatable>}});
  lua_getfield(L, -1, LUA_COLIBNAME);
  KeepOriginal(L, "close", kCloseCoroutine);
  Replace(L, {{"create", ForScript<CreateCoroutine>},
              {"resume", ForScript<ResumeCoroutine>},
              {"wrap", ForScript<WrapCoroutine>},
              {"close", ForScript<CallOriginal<kCloseCoroutine>>}});
  lua_getfield(L, -2, LUA_OSLIBNAME);
  KeepOriginal(L, "setlocale", kQueryLocale);
  Replace(L, {{"exit", ForScript<Exit>}, {"setlocale", ForScript<SetLocale>}});
  lua_pop(L, 3);
  ChangePackageLibrary(L);
  ChangeDebugLibrary(L);
  SetScriptDirectory(L, "");
}

void SetScriptDirectory(lua_State* L, const std::string& directory) {
  // Without the library's table, which scripts may have replaced, there is nothing to tell.
  if (lua_getglobal(L, "package") != LUA_TTABLE) return lua_pop(L, 1);
  const std::string path = directory + "?.lua;" + directory + "?.mlx";
  lua_pushlstring(L, path.data(), path.size());
  lua_setfield(L, -2, "path");
  lua_pop(L, 1);
}
