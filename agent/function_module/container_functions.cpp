#include <lauxlib.h>

#include <limits>
#include <optional>

#include "agent/function_module/conversion.h"
#include "agent/function_module/functions.h"
#include "agent/function_module/script_container.h"
#include "agent/function_module/script_text.h"
#include "agent/libZelMarlin/script_state.h"

namespace {

/// The optional argument `index`, which counts from 0.
uint32_t CheckListIndex(lua_State* L, int index) {
  if (lua_isnoneornil(L, index)) return kNoIndex;
  const lua_Integer number = luaL_checkinteger(L, index);
  luaL_argcheck(L, number >= 0 && number < kNoIndex, index, "an index counts from 0");
  return static_cast<uint32_t>(number);
}

std::optional<ZelContainer::Entry> FindEntry(const ZelContainer& container, const ZelString& key) {
  for (size_t i = 0; i < container.CountKeys(); ++i) {
    const ZelContainer::Entry entry = container.EntryAt(i);
    if (entry.Key() == key.Utf8()) return entry;
  }
  return std::nullopt;
}

const char* TypeName(ZelValueType type) {
  switch (type) {
    case ZelValueType::kString:
      return "string";
    case ZelValueType::kInt32:
      return "int32";
    case ZelValueType::kInt64:
      return "int64";
    case ZelValueType::kBool:
      return "bool";
    case ZelValueType::kContainer:
      return "container";
  }
  return "?";
}

// Reading. Each reader pushes the value and returns true, or pushes nothing.

using Reader = bool (*)(lua_State*, const ZelContainer&, const ZelString& key, uint32_t index);

bool ReadText(lua_State* L, const ZelContainer& container, const ZelString& key, uint32_t index) {
  ZelString value;
  if (!container.GetString(key, &value, index)) return false;
  PushText(L, value.Utf8());
  return true;
}

bool ReadInt32(lua_State* L, const ZelContainer& container, const ZelString& key, uint32_t index) {
  int32_t value = 0;
  if (!container.GetInt32(key, &value, index)) return false;
  lua_pushinteger(L, value);
  return true;
}

bool ReadInt64(lua_State* L, const ZelContainer& container, const ZelString& key, uint32_t index) {
  int64_t value = 0;
  if (!container.GetInt64(key, &value, index)) return false;
  lua_pushinteger(L, value);
  return true;
}

bool ReadBool(lua_State* L, const ZelContainer& container, const ZelString& key, uint32_t index) {
  bool value = false;
  if (!container.GetBool(key, &value, index)) return false;
  lua_pushboolean(L, value ? 1 : 0);
  return true;
}

bool ReadContainer(lua_State* L, const ZelContainer& container, const ZelString& key,
                   uint32_t index) {
  ZelContainer value;
  if (!container.GetContainer(key, &value, index)) return false;
  PushContainer(L, value);
  return true;
}

bool ReadAny(lua_State* L, const ZelContainer& container, const ZelString& key, uint32_t index) {
  return ReadText(L, container, key, index) || ReadInt64(L, container, key, index) ||
         ReadBool(L, container, key, index) || ReadContainer(L, container, key, index);
}

template <Reader Read>
int Get(lua_State* L) {
  const ScriptContainer& object = CheckContainer(L, 1);
  const ZelString key = CheckText(L, 2);
  const uint32_t index = CheckListIndex(L, 3);
  if (!Read(L, object.container, key, index)) lua_pushnil(L);
  return 1;
}

// Writing. Each writer looks at the argument 3 and then writes it; false where it is refused.

using Writer = bool (*)(lua_State*, ScriptContainer&, const ZelString& key, uint32_t index);

bool WriteText(lua_State* L, ScriptContainer& object, const ZelString& key, uint32_t index) {
  size_t length = 0;
  luaL_checklstring(L, 3, &length);
  object.Reserve(L, 2 * kValueBytes + key.GetLength() + length);
  return object.container.SetString(key, TextAt(L, 3), index);
}

bool WriteInt32(lua_State* L, ScriptContainer& object, const ZelString& key, uint32_t index) {
  const lua_Integer value = luaL_checkinteger(L, 3);
  using Limits = std::numeric_limits<int32_t>;
  luaL_argcheck(L, value >= Limits::min() && value <= Limits::max(), 3,
                "the number does not fit in 32 bits");
  object.Reserve(L, 2 * kValueBytes + key.GetLength());
  return object.container.SetInt32(key, static_cast<int32_t>(value), index);
}

bool WriteInt64(lua_State* L, ScriptContainer& object, const ZelString& key, uint32_t index) {
  const lua_Integer value = luaL_checkinteger(L, 3);
  object.Reserve(L, 2 * kValueBytes + key.GetLength());
  return object.container.SetInt64(key, value, index);
}

bool WriteBool(lua_State* L, ScriptContainer& object, const ZelString& key, uint32_t index) {
  luaL_checktype(L, 3, LUA_TBOOLEAN);
  object.Reserve(L, 2 * kValueBytes + key.GetLength());
  return object.container.SetBool(key, lua_toboolean(L, 3) != 0, index);
}

bool WriteContainer(lua_State* L, ScriptContainer& object, const ZelString& key, uint32_t index) {
  const ZelContainer value = CheckNestedContainer(L, 3, key, index != kNoIndex);
  object.Reserve(L, 2 * kValueBytes + key.GetLength() + MeasureContainer(value).bytes);
  return object.container.SetContainer(key, value, index);
}

bool WriteAny(lua_State* L, ScriptContainer& object, const ZelString& key, uint32_t index) {
  luaL_checkany(L, 3);
  // Tried apart first: what cannot be converted changes nothing, and what it takes is known.
  ZelContainer tried;
  SetValue(L, 3, &tried, key, kNoIndex);
  object.Reserve(L, MeasureContainer(tried).bytes);
  return SetValue(L, 3, &object.container, key, index);
}

template <Writer Write>
int Set(lua_State* L) {
  ScriptContainer& object = CheckContainer(L, 1);
  const ZelString key = CheckText(L, 2);
  const uint32_t index = CheckListIndex(L, 4);
  if (Write(L, object, key, index)) return 0;
  lua_pushlstring(L, key.Utf8().data(), key.Utf8().size());
  return luaL_error(L, "the list '%s' has values of another type, or ends before this index",
                    lua_tostring(L, -1));
}

// The rest.

int New(lua_State* L) {
  if (lua_isnoneornil(L, 1)) {
    PushContainer(L, {});
    return 1;
  }
  PushContainer(L, CheckWholeContainer(L, 1));
  return 1;
}

int CountValues(lua_State* L) {
  const ScriptContainer& object = CheckContainer(L, 1);
  lua_pushinteger(L, object.container.CountValues(CheckText(L, 2)));
  return 1;
}

int Remove(lua_State* L) {
  ScriptContainer& object = CheckContainer(L, 1);
  CountWork(L, object.container.CountKeys());
  lua_pushboolean(L, object.container.Remove(CheckText(L, 2)) ? 1 : 0);
  return 1;
}

int Clear(lua_State* L) {
  ScriptContainer& object = CheckContainer(L, 1);
  object.container.Clear();
  object.memory.Set(0);
  object.measuredBytes = 0;
  return 0;
}

int Keys(lua_State* L) {
  const ZelContainer& container = CheckContainer(L, 1).container;
  CountWork(L, container.CountKeys());
  lua_newtable(L);
  for (size_t i = 0; i < container.CountKeys(); ++i) {
    PushText(L, container.EntryAt(i).Key());
    lua_rawseti(L, -2, static_cast<lua_Integer>(i + 1));
  }
  return 1;
}

int Type(lua_State* L) {
  const ScriptContainer& object = CheckContainer(L, 1);
  const auto entry = FindEntry(object.container, CheckText(L, 2));
  if (!entry) {
    lua_pushnil(L);
    return 1;
  }
  // Pushing a text may run a finalizer of the script, which may change the container.
  const char* const type = TypeName(entry->Type());
  const bool isList = entry->IsList();
  lua_pushstring(L, type);
  lua_pushboolean(L, isList ? 1 : 0);
  return 2;
}

int ToTable(lua_State* L) {
  const ZelContainer container = CheckContainer(L, 1).container;
  PushTable(L, container);
  return 1;
}

/// The next key of the copy that is an upvalue; the other one counts the keys passed.
int NextPair(lua_State* L) {
  const ZelContainer& container = CheckContainer(L, lua_upvalueindex(1)).container;
  const auto position = static_cast<size_t>(lua_tointeger(L, lua_upvalueindex(2)));
  if (position >= container.CountKeys()) return 0;
  lua_pushinteger(L, static_cast<lua_Integer>(position + 1));
  lua_replace(L, lua_upvalueindex(2));
  const ZelContainer::Entry entry = container.EntryAt(position);
  PushText(L, entry.Key());
  PushEntry(L, entry);
  return 2;
}

/// Works on a copy, so that the loop may change the container.
int Pairs(lua_State* L) {
  const ScriptContainer& object = CheckContainer(L, 1);
  PushContainer(L, object.container);
  lua_pushinteger(L, 0);
  lua_pushcclosure(L, ForScript<NextPair>, 2);
  return 1;
}

int CountKeys(lua_State* L) {
  const ScriptContainer& object = CheckContainer(L, 1);
  lua_pushinteger(L, static_cast<lua_Integer>(object.container.CountKeys()));
  return 1;
}

int IsEqual(lua_State* L) {
  const ScriptContainer* const a = ContainerAt(L, 1);
  const ScriptContainer* const b = ContainerAt(L, 2);
  if (a != nullptr) CountWork(L, MeasureContainer(a->container).parts);
  lua_pushboolean(L, a != nullptr && b != nullptr && a->container == b->container ? 1 : 0);
  return 1;
}

int Describe(lua_State* L) {
  const ScriptContainer& object = CheckContainer(L, 1);
  lua_pushfstring(L, "container of %d keys", static_cast<int>(object.container.CountKeys()));
  return 1;
}

constexpr luaL_Reg kMethods[] = {
    {"get", ForScript<Get<ReadAny>>},
    {"get_string", ForScript<Get<ReadText>>},
    {"get_int32", ForScript<Get<ReadInt32>>},
    {"get_int64", ForScript<Get<ReadInt64>>},
    {"get_bool", ForScript<Get<ReadBool>>},
    {"get_container", ForScript<Get<ReadContainer>>},
    {"set", ForScript<Set<WriteAny>>},
    {"set_string", ForScript<Set<WriteText>>},
    {"set_int32", ForScript<Set<WriteInt32>>},
    {"set_int64", ForScript<Set<WriteInt64>>},
    {"set_bool", ForScript<Set<WriteBool>>},
    {"set_container", ForScript<Set<WriteContainer>>},
    {"count", ForScript<CountValues>},
    {"remove", ForScript<Remove>},
    {"clear", ForScript<Clear>},
    {"keys", ForScript<Keys>},
    {"type", ForScript<Type>},
    {"to_table", ForScript<ToTable>},
    {"pairs", ForScript<Pairs>},
    {nullptr, nullptr},
};

constexpr luaL_Reg kOperators[] = {
    {"__pairs", ForScript<Pairs>},
    {"__len", ForScript<CountKeys>},
    {"__eq", ForScript<IsEqual>},
    {"__tostring", ForScript<Describe>},
    {nullptr, nullptr},
};

constexpr luaL_Reg kFunctions[] = {
    {"new", ForScript<New>},
    {nullptr, nullptr},
};

}  // namespace

void PushContainerFunctions(lua_State* L) {
  PushContainerMetatable(L);
  luaL_setfuncs(L, kOperators, 0);
  luaL_newlib(L, kMethods);
  lua_setfield(L, -2, "__index");
  lua_pop(L, 1);
  luaL_newlib(L, kFunctions);
}
