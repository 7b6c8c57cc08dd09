#pragma once

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>

#include "agent/libZelCore/calling_user.h"
#include "agent/task_database/task.h"
#include "libZel.h"

// What the actions' parameters say, checked. task_actions.h describes the parameters.

/// A request that cannot be met, for a reason that its sender may know: one sentence, which holds
/// nothing of the request but names of parameters and the task's number.
struct RefusedRequest : std::runtime_error {
  using std::runtime_error::runtime_error;
};

constexpr size_t kMaxLongTextBytes = 1024 * 1024;  ///< a description, a note
constexpr size_t kMaxShortTextBytes = 4 * 1024;    ///< every other text

/// The names of who asks become part of tasks. Throws RefusedRequest.
void CheckCaller(const CallingUser& caller);

/// Throws RefusedRequest.
NewTask ReadNewTask(const ZelContainer& parameters, const CallingUser& caller);

/// Which task is to be changed, and for whom.
struct TaskChange {
  int32_t id = 0;
  std::string requester;
};
/// Throws RefusedRequest.
TaskChange ReadTaskChange(const ZelContainer& parameters);
/// A note's text; not empty. Throws RefusedRequest.
std::string ReadNote(const ZelContainer& parameters);

struct ListRequest {
  TaskFilter filter;  ///< without a device
  std::string deviceGuid;
};
/// Throws RefusedRequest.
ListRequest ReadListRequest(const ZelContainer& parameters);
