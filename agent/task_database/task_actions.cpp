#include "agent/task_database/task_actions.h"

#include <chrono>
#include <exception>
#include <mutex>
#include <string>
#include <vector>

#include "agent/libZelCore/calling_user.h"
#include "agent/task_database/module_main.h"
#include "agent/task_database/task_keys.h"
#include "agent/task_database/task_requests.h"
#include "agent/task_database/task_rows.h"
#include "agent/task_database/task_rules.h"

namespace {

constexpr uint32_t kDone = 0;
constexpr uint32_t kDatabaseFailed = 1;

constexpr const char* kResultKey = "Result";
constexpr const char* kErrorKey = "Error";
constexpr const char* kValuesKey = "Values";
constexpr const char* kPasswordKey = "UserPass";

std::mutex serviceMutex;
std::shared_ptr<TaskService> currentService;

struct Request {
  ZelContainer parameters;
  CallingUser caller;
};

Request TakeRequest(ZelContainer* parameters) {
  Request request;
  request.caller = TakeCallingUser(parameters);
  request.parameters = std::exchange(*parameters, {});
  return request;
}

/// What one action does with a checked caller's request. Throws RefusedRequest and StoreError.
using Work = void (*)(const Request& request, TaskService& service, ZelContainer* answer);

void DoWork(Work work, const Request& request, ZelContainer* answer) {
  const std::shared_ptr<TaskService> service = CurrentTaskService();
  if (!service) throw StoreError("the task database is not open");
  CheckCaller(request.caller);
  work(request, *service, answer);
}

void SayNo(ZelContainer* answer, const char* why) {
  answer->Clear();
  answer->SetBool(kResultKey, false, kNoIndex);
  answer->SetString(kErrorKey, why, kNoIndex);
}

// How much of a name stands in the log: those who ask have chosen it.
constexpr const char* kRefusedLine = "%s for agent \"%.128S\", user \"%.128S\": refused, %s";

uint32_t Answer(const char* action, Work work, const Request& request, ZelContainer* answer) {
  try {
    DoWork(work, request, answer);
    return kDone;
  } catch (const RefusedRequest& refusal) {
    TaskDatabaseLog().PrintWithNL(kRefusedLine, action, request.caller.agent.c_str(),
                                  request.caller.login.c_str(), refusal.what());
    SayNo(answer, refusal.what());
    return kDone;
  } catch (const StoreError& failure) {
    TaskDatabaseLog().ErrorWithNL("%s failed: %s", action, failure.what());
    SayNo(answer, failure.what());
    return kDatabaseFailed;
  } catch (const std::exception& failure) {
    TaskDatabaseLog().ErrorWithNL("%s failed: %s", action, failure.what());
    SayNo(answer, "the master's task database failed");
    return kDatabaseFailed;
  }
}

/// The frame of all actions: takes the request out of the container and leaves the answer in it.
/// The password goes first, so that no failure that follows can leave it anywhere.
uint32_t Run(const char* action, ZelContainer* parameters, Work work) noexcept {
  try {
    parameters->Remove(kPasswordKey);
    const Request request = TakeRequest(parameters);
    return Answer(action, work, request, parameters);
  } catch (...) {
    // There is no memory for so much as a sentence.
    parameters->Clear();
    return kDatabaseFailed;
  }
}

int64_t NowMs() {
  using std::chrono::milliseconds;
  const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<milliseconds>(sinceEpoch).count();
}

TaskStore::MayChange RuleFor(const TaskChange& change, const CallingUser& caller) {
  return [&](const Task& task) { return MayChangeTask(task, change.requester, caller); };
}

/// Who may not change a task does not learn either whether there is one.
std::string NoTaskText(int32_t id, const CallingUser& caller) {
  if (caller.isAdministrator) return "there is no task " + std::to_string(id);
  return "there is no task " + std::to_string(id) + " that may be changed for this requester";
}

void RefuseUnlessDone(TaskStore::Change outcome, int32_t id, const CallingUser& caller) {
  switch (outcome) {
    case TaskStore::Change::kDone:
      return;
    case TaskStore::Change::kAlreadyClosed:
      throw RefusedRequest("the task " + std::to_string(id) + " is closed already");
    case TaskStore::Change::kNoSuchTask:
    case TaskStore::Change::kRefused:
      break;
  }
  throw RefusedRequest(NoTaskText(id, caller));
}

void LogChange(int32_t id, const char* what, const CallingUser& caller) {
  TaskDatabaseLog().PrintWithNL("Task %d %s for agent \"%.128S\", user \"%.128S\"", id, what,
                                caller.agent.c_str(), caller.login.c_str());
}

void Create(const Request& request, TaskService& service, ZelContainer* answer) {
  const NewTask task = ReadNewTask(request.parameters, request.caller);

  const int32_t id = service.store.Create(task, NowMs());
  LogChange(id, "opened", request.caller);

  answer->SetBool(kResultKey, true, kNoIndex);
  answer->SetInt32(kObjectIdKey, id, kNoIndex);
}

void Close(const Request& request, TaskService& service, ZelContainer* answer) {
  const TaskChange change = ReadTaskChange(request.parameters);

  const TaskStore::Change outcome =
      service.store.Close(change.id, NowMs(), RuleFor(change, request.caller));
  RefuseUnlessDone(outcome, change.id, request.caller);
  LogChange(change.id, "closed", request.caller);

  answer->SetBool(kResultKey, true, kNoIndex);
}

void AddNote(const Request& request, TaskService& service, ZelContainer* answer) {
  const TaskChange change = ReadTaskChange(request.parameters);
  const std::string note = ReadNote(request.parameters);
  const std::string author = NoteAuthor(change.requester, request.caller);

  const TaskStore::Change outcome =
      service.store.AddNote(change.id, author, note, NowMs(), RuleFor(change, request.caller));
  RefuseUnlessDone(outcome, change.id, request.caller);
  LogChange(change.id, "annotated", request.caller);

  answer->SetBool(kResultKey, true, kNoIndex);
}

void GetList(const Request& request, TaskService& service, ZelContainer* answer) {
  ListRequest list = ReadListRequest(request.parameters);
  if (service.showsOwnDeviceOnly && !request.caller.isAdministrator) {
    // An empty filter would show all devices.
    if (list.deviceGuid.empty()) return;
    list.filter.deviceGuid = list.deviceGuid;
  }
  TaskListBounds bounds;
  bounds.tasks = service.maxListed;

  std::vector<Task> tasks = service.store.List(list.filter, bounds);

  uint32_t index = 0;
  for (Task& task : tasks) answer->SetContainer(kValuesKey, RowOf(std::move(task)), index++);
}

/// A database that cannot be used is an answer here, and no failure to give one.
void CheckRequirements(const Request&, TaskService& service, ZelContainer* answer) {
  try {
    service.store.CheckUsable();
    answer->SetBool(kResultKey, true, kNoIndex);
  } catch (const StoreError& failure) {
    TaskDatabaseLog().ErrorWithNL("The task database cannot be used: %s", failure.what());
    SayNo(answer, failure.what());
  }
}

}  // namespace

void SetTaskService(std::shared_ptr<TaskService> service) {
  // What was there before goes when the lock is free: closing a database takes its time.
  const std::lock_guard lock(serviceMutex);
  currentService.swap(service);
}

std::shared_ptr<TaskService> CurrentTaskService() {
  const std::lock_guard lock(serviceMutex);
  return currentService;
}

uint32_t TrnDbCreateTask(ZelContainer* parameters) {
  return Run("TrnDbCreateTask", parameters, Create);
}

uint32_t TrnDbCloseTask(ZelContainer* parameters) {
  return Run("TrnDbCloseTask", parameters, Close);
}

uint32_t TrnDbTaskAddNote(ZelContainer* parameters) {
  return Run("TrnDbTaskAddNote", parameters, AddNote);
}

uint32_t TrnDbTaskGetList(ZelContainer* parameters) {
  return Run("TrnDbTaskGetList", parameters, GetList);
}

uint32_t TrnDbTaskCheckRequirements(ZelContainer* parameters) {
  return Run("TrnDbTaskCheckRequirements", parameters, CheckRequirements);
}
