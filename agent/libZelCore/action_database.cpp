#include "agent/libZelCore/action_database.h"

#include <algorithm>
#include <exception>
#include <mutex>

#include "agent/libZelCore/core_log.h"

ActionDatabase::Owner* ActionDatabase::AddOwner(const std::string& moduleName) {
  auto owner = std::make_unique<Owner>(Owner{moduleName});
  Owner* const result = owner.get();
  std::unique_lock lock(mutex_);
  owners_.push_back(std::move(owner));
  return result;
}

bool ActionDatabase::IsOwner(const void* context) const {
  std::shared_lock lock(mutex_);
  return std::any_of(owners_.begin(), owners_.end(),
                     [&](const auto& owner) { return owner.get() == context; });
}

bool ActionDatabase::Register(const ZelString& signature, Action action, const Owner* owner) {
  const std::string_view text = signature.Utf8();
  const std::string_view name = text.substr(0, text.find(' '));
  if (name.empty() || !action) return false;

  auto shared = std::make_shared<const Action>(std::move(action));
  std::unique_lock lock(mutex_);
  const auto [position, isNew] = entries_.try_emplace(
      std::string(name), Entry{std::string(text), std::move(shared), owner, nextOrder_});
  if (isNew) ++nextOrder_;
  return isNew;
}

void ActionDatabase::UnregisterAll(const Owner* owner) {
  std::unique_lock lock(mutex_);
  std::erase_if(entries_, [&](const auto& entry) { return entry.second.owner == owner; });
  std::erase_if(owners_, [&](const auto& known) { return known.get() == owner; });
}

bool ActionDatabase::Contains(std::string_view name) const {
  std::shared_lock lock(mutex_);
  return entries_.contains(name);
}

std::string ActionDatabase::Signature(std::string_view name) const {
  std::shared_lock lock(mutex_);
  const auto found = entries_.find(name);
  return found == entries_.end() ? std::string() : found->second.signature;
}

std::vector<ActionInfo> ActionDatabase::List() const {
  std::vector<std::pair<uint64_t, ActionInfo>> ordered;
  {
    std::shared_lock lock(mutex_);
    ordered.reserve(entries_.size());
    for (const auto& [name, entry] : entries_)
      ordered.push_back({entry.order, {name, entry.signature}});
  }
  std::sort(ordered.begin(), ordered.end(),
            [](const auto& a, const auto& b) { return a.first < b.first; });

  std::vector<ActionInfo> list;
  list.reserve(ordered.size());
  for (auto& item : ordered) list.push_back(std::move(item.second));
  return list;
}

uint32_t ActionDatabase::Invoke(std::string_view name, ZelContainer* parameters) const {
  std::shared_ptr<const Action> action;
  {
    std::shared_lock lock(mutex_);
    const auto found = entries_.find(name);
    if (found == entries_.end()) return kInvokeUnknownAction;
    action = found->second.action;
  }

  try {
    return (*action)(parameters);
  } catch (const std::exception& error) {
    CoreLog().ErrorWithNL("Action %s failed: %s", ZelString(name), error.what());
  } catch (...) {
    CoreLog().ErrorWithNL("Action %s failed with an unknown exception", ZelString(name));
  }
  parameters->Clear();
  return kInvokeFailed;
}
