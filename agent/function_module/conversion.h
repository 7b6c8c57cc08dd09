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

// Tables, sequences and containers within each other count together: a container is nested up to 32
// levels deep, as texts of the agent's protocol are.

/// A container made of the table or container object at `index`, which is going to be the value
/// under `key` of another container, or one of its list. An error of the script about the argument
/// `index` for other values.
ZelContainer CheckNestedContainer(lua_State* L, int index, const ZelString& key, bool isInList);

/// A container made of the table or container object at `index`, which stands for itself.
ZelContainer CheckWholeContainer(lua_State* L, int index);

/// Writes the value at `index` under `key`, as the single value (`kNoIndex`) or one of its list.
/// False, with nothing written, where the container refuses it.
bool SetValue(lua_State* L, int index, ZelContainer* container, const ZelString& key,
              uint32_t listIndex);

/// Pushes a table of the container's values, nested containers being tables as well.
void PushTable(lua_State* L, const ZelContainer& container);

/// Pushes what an entry holds: its value, or a sequence of its values. Nested containers are
/// objects.
void PushEntry(lua_State* L, const ZelContainer::Entry& entry);
