#include "agent/function_module/conversion.h"

#include <lauxlib.h>

#include <algorithm>
#include <limits>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "agent/function_module/script_container.h"
#include "agent/function_module/script_text.h"
#include "agent/libZelMarlin/script_state.h"

namespace {

/// As deep as texts of the agent's protocol may be nested.
constexpr size_t kMostLevels = 32;
/// Stack slots that one level of a conversion uses.
constexpr int kSlotsPerLevel = 8;

bool FitsInt32(lua_Integer number) {
  return number >= std::numeric_limits<int32_t>::min() &&
         number <= std::numeric_limits<int32_t>::max();
}

/// One conversion of a script's values.
class FromScript {
 public:
  /// `levelsAround` tells how deep in others the values are going to be.
  FromScript(lua_State* L, size_t levelsAround) : L_(L), memory_(L), levelsAround_(levelsAround) {}

  ZelContainer ContainerFrom(int value, const std::string& path);
  bool SetValue(int value, const std::string& path, ZelContainer* container, const ZelString& key,
                uint32_t index);

 private:
  /// What the values of a list have in common.
  struct ListFacts {
    int type = LUA_TNIL;
    bool fitsInt32 = true;
  };

  [[noreturn]] static void Refuse(const std::string& path, const std::string& why) {
    throw std::invalid_argument((path.empty() ? "the table" : "the value of '" + path + "'") + " " +
                                why);
  }

  void Count(size_t bytes);
  void AddTable(int table, const std::string& path, ZelContainer* container);
  void CheckLevels(size_t more, const std::string& path) const;
  void Enter(const void* table, const std::string& path);
  void Leave() { open_.pop_back(); }
  std::vector<std::string> TextKeys(int table, const std::string& path);
  lua_Integer IntegerAt(int value, const std::string& path) const;
  static std::string PlaceInList(const std::string& path, lua_Integer i);
  lua_Integer ElementAt(int value, const std::string& path, lua_Integer i) const;
  ListFacts LookAtList(int table, lua_Integer count, const std::string& path);
  bool SetList(int table, const std::string& path, ZelContainer* container, const ZelString& key);
  bool SetInteger(lua_Integer number, bool isInt32, ZelContainer* container, const ZelString& key,
                  uint32_t index);

  lua_State* L_;
  ScriptMemory memory_;
  size_t levelsAround_;
  std::vector<const void*> open_;
};

void FromScript::Count(size_t bytes) {
  CountWork(L_, 1);
  if (!memory_.Add(L_, bytes)) throw std::bad_alloc();
}

void FromScript::CheckLevels(size_t more, const std::string& path) const {
  if (levelsAround_ + open_.size() + more > kMostLevels) Refuse(path, "is nested too deep");
}

void FromScript::Enter(const void* table, const std::string& path) {
  if (std::find(open_.begin(), open_.end(), table) != open_.end()) {
    Refuse(path, "is a table that holds itself");
  }
  CheckLevels(1, path);
  luaL_checkstack(L_, kSlotsPerLevel, "too many tables within tables");
  open_.push_back(table);
}

/// In the order of their bytes: Lua's own order changes from run to run.
std::vector<std::string> FromScript::TextKeys(int table, const std::string& path) {
  std::vector<std::string> keys;
  lua_pushnil(L_);
  while (lua_next(L_, table) != 0) {
    lua_pop(L_, 1);
    if (lua_type(L_, -1) != LUA_TSTRING) {
      Refuse(path, std::string("has a key that is a ") + luaL_typename(L_, -1) +
                       " (only texts, or 1 to n of a sequence)");
    }
    size_t length = 0;
    const char* const key = lua_tolstring(L_, -1, &length);
    keys.emplace_back(key, length);
    Count(kValueBytes + length);
  }
  std::sort(keys.begin(), keys.end());
  return keys;
}

void FromScript::AddTable(int table, const std::string& path, ZelContainer* container) {
  Enter(lua_topointer(L_, table), path);
  for (const std::string& key : TextKeys(table, path)) {
    lua_pushlstring(L_, key.data(), key.size());
    lua_rawget(L_, table);
    const std::string keyPath = path.empty() ? key : path + "." + key;
    SetValue(lua_gettop(L_), keyPath, container, ZelString(key), kNoIndex);
    lua_pop(L_, 1);
  }
  Leave();
}

lua_Integer FromScript::IntegerAt(int value, const std::string& path) const {
  int isInteger = 0;
  const lua_Integer number = lua_tointegerx(L_, value, &isInteger);
  if (isInteger == 0) Refuse(path, "is a number with a fraction, or beyond 64 bits");
  return number;
}

std::string FromScript::PlaceInList(const std::string& path, lua_Integer i) {
  return path + "[" + std::to_string(i) + "]";
}

/// The name of the place, which may be long, is made only where it may be needed.
lua_Integer FromScript::ElementAt(int value, const std::string& path, lua_Integer i) const {
  if (lua_isinteger(L_, value)) return lua_tointeger(L_, value);
  CountWork(L_, path.size() / kValueBytes);
  return IntegerAt(value, PlaceInList(path, i));
}

bool FromScript::SetInteger(lua_Integer number, bool isInt32, ZelContainer* container,
                            const ZelString& key, uint32_t index) {
  if (isInt32) return container->SetInt32(key, static_cast<int32_t>(number), index);
  return container->SetInt64(key, number, index);
}

ZelContainer FromScript::ContainerFrom(int value, const std::string& path) {
  if (const ScriptContainer* const object = ContainerAt(L_, value)) {
    const ContainerMeasure measure = MeasureContainer(object->container);
    Count(measure.bytes);
    CountWork(L_, measure.parts);
    CheckLevels(static_cast<size_t>(measure.levels), path);
    return object->container;
  }
  ZelContainer nested;
  AddTable(value, path, &nested);
  return nested;
}

bool FromScript::SetValue(int value, const std::string& path, ZelContainer* container,
                          const ZelString& key, uint32_t index) {
  Count(kValueBytes);
  CountWork(L_, path.size() / kValueBytes);
  switch (lua_type(L_, value)) {
    case LUA_TSTRING:
      Count(lua_rawlen(L_, value));
      return container->SetString(key, TextAt(L_, value), index);
    case LUA_TBOOLEAN:
      return container->SetBool(key, lua_toboolean(L_, value) != 0, index);
    case LUA_TNUMBER: {
      const lua_Integer number = IntegerAt(value, path);
      // A list of 64-bit values stays one, whatever the size of what is written into it.
      if (index == kNoIndex || !FitsInt32(number)) {
        return SetInteger(number, FitsInt32(number), container, key, index);
      }
      return SetInteger(number, true, container, key, index) ||
             SetInteger(number, false, container, key, index);
    }
    case LUA_TTABLE:
      if (lua_rawlen(L_, value) == 0) break;
      if (index != kNoIndex) Refuse(path, "is a list within a list");
      return SetList(value, path, container, key);
    default:
      break;
  }
  if (!lua_istable(L_, value) && ContainerAt(L_, value) == nullptr) {
    Refuse(path, std::string("is a ") + luaL_typename(L_, value));
  }
  return container->SetContainer(key, ContainerFrom(value, path), index);
}

FromScript::ListFacts FromScript::LookAtList(int table, lua_Integer count,
                                             const std::string& path) {
  lua_Integer keyCount = 0;
  lua_pushnil(L_);
  while (lua_next(L_, table) != 0) {
    lua_pop(L_, 1);
    if (!lua_isinteger(L_, -1)) Refuse(path, "is a list that has other keys too");
    ++keyCount;
  }
  if (keyCount != count) Refuse(path, "is a list with gaps");

  ListFacts facts;
  CountWork(L_, static_cast<size_t>(count));
  for (lua_Integer i = 1; i <= count; ++i) {
    const int type = lua_rawgeti(L_, table, i) == LUA_TUSERDATA ? LUA_TTABLE : lua_type(L_, -1);
    if (i > 1 && type != facts.type) Refuse(path, "is a list of values of several types");
    facts.type = type;
    if (type == LUA_TNUMBER && !FitsInt32(ElementAt(-1, path, i))) facts.fitsInt32 = false;
    lua_pop(L_, 1);
  }
  return facts;
}

bool FromScript::SetList(int table, const std::string& path, ZelContainer* container,
                         const ZelString& key) {
  Enter(lua_topointer(L_, table), path);
  const auto count = static_cast<lua_Integer>(lua_rawlen(L_, table));
  const ListFacts facts = LookAtList(table, count, path);
  container->Remove(key);
  for (lua_Integer i = 1; i <= count; ++i) {
    const auto index = static_cast<uint32_t>(i - 1);
    lua_rawgeti(L_, table, i);
    const int value = lua_gettop(L_);
    if (facts.type == LUA_TNUMBER) {
      Count(kValueBytes);
      SetInteger(ElementAt(value, path, i), facts.fitsInt32, container, key, index);
    } else {
      SetValue(value, PlaceInList(path, i), container, key, index);
    }
    lua_pop(L_, 1);
  }
  Leave();
  return true;
}

void PushLevel(lua_State* L, const ZelContainer& container, int level);

void PushValue(lua_State* L, const ZelContainer::Entry& entry, size_t index, int level) {
  switch (entry.Type()) {
    case ZelValueType::kString:
      return PushText(L, entry.StringAt(index));
    case ZelValueType::kInt32:
    case ZelValueType::kInt64:
      return lua_pushinteger(L, entry.IntegerAt(index));
    case ZelValueType::kBool:
      return lua_pushboolean(L, entry.BoolAt(index) ? 1 : 0);
    case ZelValueType::kContainer:
      break;
  }
  if (level < 0) {
    PushContainer(L, entry.ContainerAt(index));
  } else {
    PushLevel(L, entry.ContainerAt(index), level + 1);
  }
}

/// With a negative level nested containers are objects.
void PushValues(lua_State* L, const ZelContainer::Entry& entry, int level) {
  if (!entry.IsList()) return PushValue(L, entry, 0, level);
  CountWork(L, entry.Count());
  lua_createtable(L, static_cast<int>(std::min<size_t>(entry.Count(), 1 << 20)), 0);
  for (size_t i = 0; i < entry.Count(); ++i) {
    PushValue(L, entry, i, level);
    lua_rawseti(L, -2, static_cast<lua_Integer>(i + 1));
  }
}

void PushLevel(lua_State* L, const ZelContainer& container, int level) {
  constexpr int kMostLevelsToPush = 1000;
  if (level > kMostLevelsToPush) throw std::length_error("the container is nested too deep");
  CountWork(L, container.CountKeys());
  luaL_checkstack(L, kSlotsPerLevel, "too many containers within containers");
  lua_createtable(L, 0, static_cast<int>(std::min<size_t>(container.CountKeys(), 1 << 20)));
  for (size_t i = 0; i < container.CountKeys(); ++i) {
    const ZelContainer::Entry entry = container.EntryAt(i);
    PushText(L, entry.Key());
    PushValues(L, entry, level);
    lua_rawset(L, -3);
  }
}

/// The container that is written to, and its list.
size_t LevelsAround(bool isInList) {
  return isInList ? 2 : 1;
}

void CheckType(lua_State* L, int index) {
  const bool fits = lua_istable(L, index) || ContainerAt(L, index) != nullptr;
  luaL_argexpected(L, fits, index, "table or container");
}

/// Runs a conversion; what is wrong with a value becomes an error of the script about `argument`.
template <typename Operation>
auto Converting(lua_State* L, int argument, Operation operation) {
  std::string reason;
  try {
    return operation();
  } catch (const std::invalid_argument& error) {
    reason = error.what();
  }
  // Lua's copy of the text, so that none of ours is lost where it raises the error.
  lua_pushlstring(L, reason.data(), reason.size());
  luaL_argerror(L, argument, lua_tostring(L, -1));
  return decltype(operation())();
}

}  // namespace

ZelContainer CheckNestedContainer(lua_State* L, int index, const ZelString& key, bool isInList) {
  CheckType(L, index);
  return Converting(L, index, [&] {
    return FromScript(L, LevelsAround(isInList)).ContainerFrom(index, std::string(key.Utf8()));
  });
}

ZelContainer CheckWholeContainer(lua_State* L, int index) {
  CheckType(L, index);
  return Converting(L, index, [&] { return FromScript(L, 0).ContainerFrom(index, ""); });
}

bool SetValue(lua_State* L, int index, ZelContainer* container, const ZelString& key,
              uint32_t listIndex) {
  const int value = lua_absindex(L, index);
  return Converting(L, index, [&] {
    FromScript conversion(L, LevelsAround(listIndex != kNoIndex));
    return conversion.SetValue(value, std::string(key.Utf8()), container, key, listIndex);
  });
}

void PushTable(lua_State* L, const ZelContainer& container) {
  PushLevel(L, container, 0);
}

void PushEntry(lua_State* L, const ZelContainer::Entry& entry) {
  PushValues(L, entry, -1);
}
