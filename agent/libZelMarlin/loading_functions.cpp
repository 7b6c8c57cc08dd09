#include <algorithm>
#include <cstring>
#include <filesystem>
#include <string>
#include <system_error>

#include "agent/libZel/native_path.h"
#include "agent/libZelMarlin/library_changes.h"
#include "agent/libZelMarlin/script_libraries.h"
#include "agent/libZelMarlin/script_source.h"
#include "agent/libZelMarlin/script_state.h"

namespace {

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
  const ZelString path(BytesAt(L, 1));
  const ScriptSource source = ReadScriptSource(path);
  if (source.error != kMarlinOk) {
    const std::string_view reason = source.reason.Utf8();
    lua_pushlstring(L, reason.data(), reason.size());
    return false;
  }
  const std::string chunkName = "@" + std::string(BytesAt(L, 1));
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
  const bool isFound = FindModule(name, BytesAt(L, -1), &path, &tried);
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

}  // namespace

void ChangeLoading(lua_State* L) {
  lua_pushglobaltable(L);
  KeepOriginal(L, "load", kLoad);
  Replace(L, {{"load", ForScript<Load>},
              {"loadfile", ForScript<LoadFile>},
              {"dofile", ForScript<DoFile>}});
  lua_pop(L, 1);
  ChangePackageLibrary(L);
}

void SetScriptDirectory(lua_State* L, const std::string& directory) {
  // Without the library's table, which scripts may have replaced, there is nothing to tell.
  if (lua_getglobal(L, "package") != LUA_TTABLE) return lua_pop(L, 1);
  const std::string path = directory + "?.lua;" + directory + "?.mlx";
  lua_pushlstring(L, path.data(), path.size());
  lua_setfield(L, -2, "path");
  lua_pop(L, 1);
}
