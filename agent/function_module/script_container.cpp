#include "agent/function_module/script_container.h"

#include <lauxlib.h>

#include <algorithm>
#include <memory>
#include <new>
#include <utility>

namespace {

constexpr const char* kTypeName = "container";
constexpr size_t kSmallBytes = 1024 * 1024;

ContainerMeasure MeasureValue(const ZelContainer::Entry& entry, size_t index) {
  if (entry.Type() == ZelValueType::kString)
    return {kValueBytes + entry.StringAt(index).size(), 1, 0};
  if (entry.Type() != ZelValueType::kContainer) return {kValueBytes, 1, 0};
  ContainerMeasure nested = MeasureContainer(entry.ContainerAt(index));
  nested.bytes += kValueBytes;
  ++nested.parts;
  return nested;
}

/// Finalizers of the script that run later may still have the object: it is no container then.
int Destroy(lua_State* L) {
  ScriptContainer* const object = ContainerAt(L, 1);
  if (object == nullptr) return 0;
  lua_pushnil(L);
  lua_setmetatable(L, 1);
  object->~ScriptContainer();
  return 0;
}

template <typename... Arguments>
ScriptContainer& PushObject(lua_State* L, Arguments&... arguments) {
  void* const place = lua_newuserdatauv(L, sizeof(ScriptContainer), 0);
  auto& made = *new (place) ScriptContainer(L, arguments...);
  luaL_setmetatable(L, kTypeName);
  return made;
}

/// An object that needs no finalizer: the context destroys what it holds.
ScriptContainer& PushKept(lua_State* L) {
  auto container = std::make_unique<ZelContainer>();
  ZelContainer& kept = *container;
  if (!KeepContainer(ContextOf(L), std::move(container))) RaiseMemoryError(L);
  return PushObject(L, kept);
}

}  // namespace

ContainerMeasure MeasureContainer(const ZelContainer& container) {
  ContainerMeasure measure;
  for (size_t i = 0; i < container.CountKeys(); ++i) {
    const ZelContainer::Entry entry = container.EntryAt(i);
    const int around = entry.IsList() ? 2 : 1;
    measure.bytes += kValueBytes + entry.Key().size();
    ++measure.parts;
    for (size_t j = 0; j < entry.Count(); ++j) {
      const ContainerMeasure value = MeasureValue(entry, j);
      measure.bytes += value.bytes;
      measure.parts += value.parts;
      measure.levels = std::max(measure.levels, around + value.levels);
    }
  }
  return measure;
}

void ScriptContainer::Reserve(lua_State* L, size_t bytes) {
  if (memory.Bytes() > 2 * measuredBytes + kSmallBytes || !memory.Add(L, bytes)) {
    // Values that were replaced have been counted, too: look at what is there.
    measuredBytes = MeasureContainer(container).bytes;
    memory.Set(std::min(memory.Bytes(), measuredBytes));
    if (!memory.Add(L, bytes)) RaiseMemoryError(L);
  }
}

void PushContainer(lua_State* L, const ZelContainer& container) {
  const ContainerMeasure measure = MeasureContainer(container);
  CountWork(L, measure.parts);
  ScriptContainer& made = IsClosing(L) ? PushKept(L) : PushObject(L);
  made.Reserve(L, measure.bytes);
  made.container = container;
}

void PushOutsideContainer(lua_State* L, ZelContainer& container) {
  const size_t bytes = MeasureContainer(container).bytes;
  ScriptContainer& made = PushObject(L, container);
  if (!made.memory.Add(L, bytes)) RaiseMemoryError(L);
  made.measuredBytes = bytes;
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
