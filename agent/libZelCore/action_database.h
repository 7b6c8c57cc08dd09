#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <vector>

#include "libZelCore.h"

struct ActionInfo {
  std::string name;
  std::string signature;
};

/// The agent's actions by name. Lookups run side by side; a handler's exception ends here.
class ActionDatabase {
 public:
  using Action = std::function<uint32_t(ZelContainer*)>;

  /// What modules receive as registration context: whose actions these are.
  struct Owner {
    std::string moduleName;
  };

  /// Makes an owner, valid until `UnregisterAll`.
  Owner* AddOwner(const std::string& moduleName);
  /// Whether `context` came from `AddOwner` and is still valid. Any pointer may be asked about.
  bool IsOwner(const void* context) const;

  /// False when the name (the signature up to the first blank) is empty or taken.
  bool Register(const ZelString& signature, Action action, const Owner* owner);
  /// Removes the owner's actions and the owner; running actions are waited for by the caller before
  /// it unloads their code.
  void UnregisterAll(const Owner* owner);

  bool Contains(std::string_view name) const;
  /// The registered signature, or empty.
  std::string Signature(std::string_view name) const;
  /// In order of registration.
  std::vector<ActionInfo> List() const;

  /// Runs the action on this thread: its code, `kInvokeUnknownAction` or `kInvokeFailed` (the
  /// handler threw; logged; the container is then empty).
  uint32_t Invoke(std::string_view name, ZelContainer* parameters) const;

 private:
  struct Entry {
    std::string signature;
    std::shared_ptr<const Action> action;
    const Owner* owner;
    uint64_t order;
  };

  mutable std::shared_mutex mutex_;
  std::map<std::string, Entry, std::less<>> entries_;
  std::vector<std::unique_ptr<Owner>> owners_;
  uint64_t nextOrder_ = 0;
};
