#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "libZel/container.h"

// What the core knows of actions by their names. The module that registers an action cannot say it.

/// The actions that console users need the role "administrator" for, unless the settings say
/// otherwise; sorted.
std::vector<std::string> AdministratorsOnlyByDefault();

/// Whether a person at this machine answers it, however late.
bool WaitsForPerson(std::string_view action);

/// Whether other machines answer it, or let it wait in vain.
bool WaitsForNetwork(std::string_view action);

/// Whether the agent asks its master for it, which may be another machine.
bool AsksMaster(std::string_view action);

/// Whether a request names a file behind an http or https URL: a text under a key that ends in
/// "Path".
bool NamesUrl(const ZelContainer& parameters);

/// Whether the parameter is a text or a list of texts, whatever type the action's signature gives
/// it for people.
bool IsTextParameter(std::string_view action, std::string_view key);
