#include "agent/function_module/script_container.h"

#include <lauxlib.h>

#include <algorithm>
#include <new>

namespace {

constexpr const char* kTypeName = "container";
constexpr size_t kSmallBytes = 1024 * 1024;

size_t MeasureValue(const ZelContainer::Entry& entry, size_t index) {
  if (entry.Type() == ZelValueType::kString) return kValueBytes + entry.StringAt(index).size();
  if (entry.Type() == ZelValueType::kContainer) {
    return kValueBytes + MeasureContainer(entry.ContainerAt(index));
  }
  return kValueBytes;
}

int Destroy(lua_State* L) {
  static_cast<ScriptContainer*>(lua_touserdata(L, 1))->~ScriptContainer();
  return 0;
}

}  // namespace

size_t MeasureContainer(const ZelContainer& container) {
  size_t bytes = 0;
  for (size_t i = 0; i < container.CountKeys(); ++i) {
    const ZelContainer::Entry entry = container.EntryAt(i);
    bytes += kValueBytes + entry.Key().size();
    for (size_t j = 0; j < entry.Count(); ++j) bytes += MeasureValue(entry, j);
  }
  return bytes;
}

void ScriptContainer::Reserve(lua_State* L, size_t bytes) {
  if (memory.Bytes() > 2 * measuredBytes + kSmallBytes || !memory.Add(L, bytes)) {
    // Values that were replaced have been counted, too: look at what is there.
    measuredBytes = MeasureContainer(container);
    memory.Set(std::min(memory.Bytes(), measuredBytes));
    if (!memory.Add(L, bytes)) RaiseMemoryError(L);
  }
}

ScriptContainer& PushContainer(lua_State* L, const ZelContainer& container) {
  void* const place = lua_newuserdatauv(L, sizeof(ScriptContainer), 0);
  auto& made = *new (place) ScriptContainer(L);
  luaL_setmetatable(L, kTypeName);
  made.Reserve(L, MeasureContainer(container));
  made.container = container;
  return made;
}

ScriptContainer* ContainerAt(lua_State* L, int index) {
  return static_cast<ScriptContainer*>(luaL_testudata(L, index, kTypeName));
}

ScriptContainer& CheckContainer(lua_State* L, int index) {
  return *static_cast<ScriptContainer*>(luaL_checkudata(L, index, kTypeName));
}

void PushContainerMetatable(lua_State* L) {
  luaL_newmetatable(L, kTypeName);
  lua_pushcfunction(L, Destroy);
  lua_setfield(L, -2, "__gc");
}
