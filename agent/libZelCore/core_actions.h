#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "agent/libZelCore/action_database.h"
#include "agent/libZelCore/alias_table.h"
#include "agent/libZelCore/application_inventory.h"
#include "agent/libZelCore/privacy_policy.h"
#include "agent/libZelCore/settings.h"

/// What the core's own actions work on. All of it must outlive them.
struct CoreParts {
  const Settings& settings;
  ZelString dataDirectory;    ///< ends in a separator
  ZelString configDirectory;  ///< ends in a separator
  std::string identity;       ///< see identity.h
  const PrivacyPolicy& policy;
  ApplicationInventory& inventory;
  AliasTable& aliases;
  /// Where the HTTP protocol is served, or would be.
  std::function<uint16_t()> port;
};

/// Registers the actions of the core itself: docs/architecture.md lists them.
void RegisterCoreActions(const CoreParts& parts, ActionDatabase* actions,
                         const ActionDatabase::Owner* owner);
