#pragma once

#include <lua.h>

#include "libZel/container.h"

// Values of scripts as values of containers, and back.
//
//   text, boolean           String, Bool
//   integer                 Int32 where it fits, else Int64; so has a float without a fraction
//   sequence                a list, whose values have one type
//   table with text keys, container object, empty table      a nested container
//
// Anything else is an error of the script that names the key. Tables are looked at without their
// metatables.

/// Adds the values of the table at `index` to `container`. The argument `index` is named in errors.
void AddTable(lua_State* L, int index, ZelContainer* container);

/// Writes the value at `index` under `key`, as the single value (`kNoIndex`) or one of its list.
/// False, with nothing written, where the container refuses it.
bool SetValue(lua_State* L, int index, ZelContainer* container, const ZelString& key,
              uint32_t listIndex);

/// Pushes a table of the container's values, nested containers being tables as well.
void PushTable(lua_State* L, const ZelContainer& container);

/// Pushes what an entry holds: its value, or a sequence of its values. Nested containers are
/// objects.
void PushEntry(lua_State* L, const ZelContainer::Entry& entry);
