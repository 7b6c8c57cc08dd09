#include "agent/function_module/script_text.h"

#include <lauxlib.h>

#include <string>
#include <string_view>

namespace {

constexpr char kSurrogateLead = '\xED';
constexpr size_t kSurrogateBytes = 3;

/// Whether `text` starts with one of U+DC80 to U+DCFF (ED B2 80 to ED B3 BF).
bool StartsWithByte(std::string_view text) {
  return text.size() >= kSurrogateBytes && text[0] == kSurrogateLead &&
         (text[1] == '\xB2' || text[1] == '\xB3');
}

char ByteOf(std::string_view surrogate) {
  const unsigned high = surrogate[1] == '\xB2' ? 0x80 : 0xC0;
  return static_cast<char>(high | (static_cast<unsigned char>(surrogate[2]) & 0x3FU));
}

std::string WithBytes(std::string_view text) {
  std::string result;
  result.reserve(text.size());
  while (!text.empty()) {
    const bool isByte = StartsWithByte(text);
    result += isByte ? ByteOf(text) : text[0];
    text.remove_prefix(isByte ? kSurrogateBytes : 1);
  }
  return result;
}

}  // namespace

void PushText(lua_State* L, std::string_view text) {
  if (text.find(kSurrogateLead) == std::string_view::npos) {
    lua_pushlstring(L, text.data(), text.size());
    return;
  }
  const std::string bytes = WithBytes(text);
  lua_pushlstring(L, bytes.data(), bytes.size());
}

ZelString TextAt(lua_State* L, int index) {
  size_t length = 0;
  const char* const text = lua_tolstring(L, index, &length);
  return {std::string_view(text, length)};
}

ZelString CheckText(lua_State* L, int index) {
  luaL_argexpected(L, lua_type(L, index) == LUA_TSTRING, index, "string");
  return TextAt(L, index);
}
