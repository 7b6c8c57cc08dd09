#include "agent/proxy/dialogs.h"

#include <algorithm>
#include <exception>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "agent/proxy/dialog.h"

namespace {

[[noreturn]] void RefuseNumber(uint32_t number) {
  throw std::runtime_error("there is no dialog " + std::to_string(number));
}

}  // namespace

DialogTable::DialogTable(Desktop* desktop, const DialogLimits& limits)
    : desktop_(desktop), limits_(limits) {}

DialogTable::~DialogTable() = default;

uint32_t DialogTable::Create(Owner owner, DialogContent content) {
  if (!desktop_) throw std::runtime_error("there is no display");
  const std::lock_guard lock(mutex_);
  const Entries::const_iterator replaced = FindOneToReplace(owner);
  if (CountOpen() >= limits_.open) throw std::runtime_error("there are too many dialogs");
  if (replaced != entries_.end()) entries_.erase(replaced);
  const uint32_t number = ++lastNumber_;
  entries_[number] = {owner, std::make_shared<Dialog>(*desktop_, number, std::move(content))};
  return number;
}

void DialogTable::Show(Owner owner, uint32_t number, Desktop::Ended ended) {
  std::shared_ptr<Dialog> dialog;
  {
    const std::lock_guard lock(mutex_);
    const auto found = entries_.find(number);
    if (found == entries_.end()) RefuseNumber(number);
    if (found->second.owner != owner)
      throw std::runtime_error("the dialog belongs to another connection");
    dialog = found->second.dialog;
  }
  dialog->Show(std::move(ended));
}

void DialogTable::Close(uint32_t number) {
  if (const std::shared_ptr<Dialog> dialog = Find(number)) dialog->Close();
}

DialogState DialogTable::State(uint32_t number) const {
  const std::shared_ptr<Dialog> dialog = Find(number);
  if (!dialog) RefuseNumber(number);
  const bool hasEnded = dialog->HasEnded();
  return {!hasEnded, hasEnded ? dialog->Button() : 0};
}

bool DialogTable::HasAny(Owner owner) const {
  const std::lock_guard lock(mutex_);
  return std::any_of(entries_.begin(), entries_.end(),
                     [&](const auto& one) { return one.second.owner == owner; });
}

void DialogTable::Release(Owner owner) {
  Entries released;
  {
    const std::lock_guard lock(mutex_);
    for (auto entry = entries_.begin(); entry != entries_.end();) {
      const auto next = std::next(entry);
      if (entry->second.owner == owner) released.insert(entries_.extract(entry));
      entry = next;
    }
  }
  for (auto& [number, entry] : released) {
    try {
      entry.dialog->Close();
    } catch (const std::exception&) {
      // Nobody is left to be told.
    }
  }
}

std::shared_ptr<Dialog> DialogTable::Find(uint32_t number) const {
  const std::lock_guard lock(mutex_);
  const auto found = entries_.find(number);
  return found == entries_.end() ? nullptr : found->second.dialog;
}

size_t DialogTable::CountOpen() const {
  return static_cast<size_t>(std::count_if(entries_.begin(), entries_.end(), [](const auto& one) {
    return !one.second.dialog->HasEnded();
  }));
}

DialogTable::Entries::const_iterator DialogTable::FindOneToReplace(Owner owner) const {
  const auto owned = std::count_if(entries_.begin(), entries_.end(),
                                   [&](const auto& one) { return one.second.owner == owner; });
  if (static_cast<size_t>(owned) < limits_.perOwner) return entries_.end();
  const auto oldest = std::find_if(entries_.begin(), entries_.end(), [&](const auto& one) {
    return one.second.owner == owner && one.second.dialog->HasEnded();
  });
  if (oldest == entries_.end()) throw std::runtime_error("the connection has too many dialogs");
  return oldest;
}
