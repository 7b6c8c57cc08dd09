#include "agent/task_database/module_main.h"

#include <algorithm>
#include <exception>
#include <memory>
#include <stdexcept>
#include <string>

#include "agent/libZelCore/settings.h"
#include "agent/task_database/task_actions.h"
#include "libZelCore.h"

namespace {

constexpr uint32_t kDone = 1;
constexpr uint32_t kUnknownCommand = 5;

constexpr const char* kName = "TaskDatabase";
constexpr const char* kDescription =
    "Helpdesk tasks of the fleet, kept in the master's database (TaskDatabase)";

struct ActionRow {
  const char* signature;
  ActionHandler handler;
};

constexpr ActionRow kActions[] = {
    {"TrnDbCreateTask (string ObjectName, string _DB_ATTR_DESCRIPTION_, string _DB_ATTR_PRIORITY_, "
     "string _DB_ATTR_REQUESTEDBY_, string _DB_ATTR_NOTES_, string Language, string UserEmail, "
     "string UserDomain, string UserLogin, string GUID)",
     TrnDbCreateTask},
    {"TrnDbCloseTask (int ObjectId, string _DB_ATTR_REQUESTEDBY_)", TrnDbCloseTask},
    {"TrnDbTaskAddNote (int ObjectId, string _DB_ATTR_REQUESTEDBY_, string _DB_ATTR_NOTES_)",
     TrnDbTaskAddNote},
    {"TrnDbTaskGetList (string _DB_ATTR_REQUESTEDBY_, string _DB_ATTR_STATUS_, "
     "string _DB_ATTR_PRIORITY_, string GUID, boolean FromHCHL)",
     TrnDbTaskGetList},
    {"TrnDbTaskCheckRequirements ()", TrnDbTaskCheckRequirements},
};

void CopyWithTerminator(const ZelString& text, TCHAR* buffer) {
  const TCHAR* const wide = text.GetTCHAR();
  const size_t length = std::char_traits<TCHAR>::length(wide);
  std::char_traits<TCHAR>::copy(buffer, wide, length + 1);
}

void Register(void* registrationContext) {
  TaskDatabaseLog().SetContext(ZelAgentGetDebugContext());
  for (const ActionRow& row : kActions) {
    if (ActionDbRegisterAction(row.signature, row.handler, registrationContext) != 0)
      TaskDatabaseLog().ErrorWithNL("This agent does not take the action %s", row.signature);
  }
}

TaskStoreOptions StoreOptions(const Settings& settings) {
  TaskStoreOptions options;
  options.database = settings.masterDatabase;
  options.connections = settings.masterConnections;
  // Who asks shall hear why before they give up.
  options.timeoutMs = std::min(options.timeoutMs, std::max(settings.masterTimeoutMs / 2, 1u));
  if (options.database.empty()) {
    ZelString directory;
    ZelAgentGetDataDir(directory);
    options.database = (directory + "TaskDatabase/tasks.db").Utf8();
  }
  return options;
}

/// Where the tasks are, as the log may tell it: connection strings hold passwords in many ways.
std::string NameForLog(const std::string& database) {
  if (database.starts_with('/')) return "the file " + database;
  return "the PostgreSQL database that [master] database names";
}

void Initialise() {
  const Settings* const settings = CurrentSettings();
  if (!settings) throw std::runtime_error("no agent runs in this process");

  const TaskStoreOptions options = StoreOptions(*settings);
  TaskDatabaseLog().PrintWithNL("The fleet's tasks are kept in %s",
                                NameForLog(options.database).c_str());
  SetTaskService(std::make_shared<TaskService>(options, settings->masterMaxListed,
                                               settings->listsOwnDeviceOnly));
}

/// A database that cannot be used now may become usable while the agent runs: every action tries
/// anew.
void Activate() {
  const std::shared_ptr<TaskService> service = CurrentTaskService();
  if (!service) return;
  try {
    service->store.CheckUsable();
  } catch (const StoreError& failure) {
    TaskDatabaseLog().WarningWithNL("The task database cannot be used: %s", failure.what());
  }
}

void CleanUp() {
  SetTaskService(nullptr);
}

void Run(uint32_t command, TCHAR* buffer) {
  switch (command) {
    case 1:
      return Register(buffer);
    case 2:
      return TaskDatabaseLog().SetContext(nullptr);
    case 3:
      return Initialise();
    case 4:
      return Activate();
    case 5:
      return CleanUp();
    case 6:
      return CopyWithTerminator(kDescription, buffer);
    case 7:
      return CopyWithTerminator(ZEL_VERSION, buffer);
    default:
      return;
  }
}

void LogFailure(uint32_t command, const char* what) noexcept {
  try {
    TaskDatabaseLog().ErrorWithNL("Module command %u failed: %s", command, what);
  } catch (...) {
    // There is no memory for a log line: there is nowhere left to tell it.
  }
}

}  // namespace

ZelDebug& TaskDatabaseLog() {
  static ZelDebug log(kName, kDescription);
  return log;
}

extern "C" uint32_t ModuleMain(uint32_t command, uint32_t /*argument*/, TCHAR* buffer) {
  constexpr uint32_t kLastCommand = 9;
  if (command == 0 || command > kLastCommand) return kUnknownCommand;
  try {
    Run(command, buffer);
  } catch (const std::exception& failure) {
    LogFailure(command, failure.what());
  } catch (...) {
    LogFailure(command, "for an unknown reason");
  }
  return kDone;
}
