#pragma once

#include <lua.h>

#include "agent/libZelMarlin/script_state.h"
#include "libZel/container.h"

/// A container that a script holds as an object.
struct ScriptContainer {
  explicit ScriptContainer(lua_State* L) : container(own_), memory(L) {}
  /// One that is elsewhere, where it outlives the script.
  ScriptContainer(lua_State* L, ZelContainer& outside) : container(outside), memory(L) {}

  /// Counts the memory of what is about to be added; an error of the script when it is too much.
  void Reserve(lua_State* L, size_t bytes);

  ZelContainer& container;
  ScriptMemory memory;
  /// What the content took when it was last looked at.
  size_t measuredBytes = 0;

 private:
  ZelContainer own_;
};

/// What a value takes beside its text, roughly.
constexpr size_t kValueBytes = 64;

struct ContainerMeasure {
  /// What it takes, roughly; what is shared counts each time.
  size_t bytes = 0;
  /// How many keys and values it has, those of nested ones included.
  size_t parts = 0;
  /// How deep it is nested: 1 without any list or container within.
  int levels = 1;
};

ContainerMeasure MeasureContainer(const ZelContainer& container);

/// Pushes a new object with the content of `container`, whose memory is counted as the script's.
void PushContainer(lua_State* L, const ZelContainer& container);

/// Pushes a new object that is `container` itself, whose memory is counted as the script's.
void PushOutsideContainer(lua_State* L, ZelContainer& container);

/// The object at `index`; null when something else is there.
ScriptContainer* ContainerAt(lua_State* L, int index);

/// The argument `index`; an error of the script unless it is a container.
ScriptContainer& CheckContainer(lua_State* L, int index);

/// Makes the metatable of the objects and leaves it on top of the stack.
void PushContainerMetatable(lua_State* L);
