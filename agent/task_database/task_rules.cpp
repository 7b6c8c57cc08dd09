#include "agent/task_database/task_rules.h"

bool MayChangeTask(const Task& task, std::string_view requester, const CallingUser& caller) {
  if (caller.isAdministrator) return true;
  if (requester.empty() || requester != task.requester) return false;

  // An agent that vouches for nobody speaks for whomever it names.
  if (caller.login.empty()) return true;

  // A console user can put any name into a request, so the name alone does not make it theirs.
  const bool hasOpenedIt = task.agent == caller.agent && task.consoleUser == caller.login;
  const bool wasOpenedByNobody = task.consoleUser.empty();
  return hasOpenedIt || wasOpenedByNobody || requester == caller.login;
}

std::string NoteAuthor(const std::string& requester, const CallingUser& caller) {
  if (!requester.empty()) return requester;
  return caller.login.empty() ? caller.agent : caller.login;
}
