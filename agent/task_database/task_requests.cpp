#include "agent/task_database/task_requests.h"

#include <string_view>

#include "agent/task_database/task_keys.h"

namespace {

constexpr const char* kNameKey = "ObjectName";

[[noreturn]] void Refuse(const char* key, const std::string& what) {
  throw RefusedRequest("the parameter \"" + std::string(key) + "\" " + what);
}

/// What is wrong with a text, or empty.
std::string FindProblem(std::string_view text, size_t maxBytes) {
  if (text.size() > maxBytes) return "is longer than " + std::to_string(maxBytes) + " bytes";
  if (text.find('\0') != std::string_view::npos) return "holds a NUL character";
  if (!ZelString::IsTextUTF8(text.data(), static_cast<uint32_t>(text.size())))
    return "is not valid Unicode";
  return {};
}

bool IsAbsent(const ZelContainer& parameters, const char* key) {
  return parameters.CountValues(key) == 0;
}

std::string ReadText(const ZelContainer& parameters, const char* key,
                     size_t maxBytes = kMaxShortTextBytes) {
  if (IsAbsent(parameters, key)) return {};
  ZelString value;
  if (!parameters.GetString(key, &value, kNoIndex)) Refuse(key, "must be a text");

  std::string text = std::move(value).TakeUtf8();
  const std::string problem = FindProblem(text, maxBytes);
  if (!problem.empty()) Refuse(key, problem);
  return text;
}

int32_t ReadTaskId(const ZelContainer& parameters) {
  int32_t id = 0;
  if (IsAbsent(parameters, kObjectIdKey)) return id;
  if (!parameters.GetInt32(kObjectIdKey, &id, kNoIndex))
    Refuse(kObjectIdKey, "must be an integer of 32 bits");
  return id;
}

bool IsBlank(std::string_view text) {
  return text.find_first_not_of(" \t\n\v\f\r") == std::string_view::npos;
}

void CheckCallerName(std::string_view name, const char* whose) {
  const std::string problem = FindProblem(name, kMaxShortTextBytes);
  if (!problem.empty()) throw RefusedRequest("the name of the asking " + (whose + (" " + problem)));
}

}  // namespace

void CheckCaller(const CallingUser& caller) {
  CheckCallerName(caller.agent, "agent");
  CheckCallerName(caller.login, "user");
}

NewTask ReadNewTask(const ZelContainer& parameters, const CallingUser& caller) {
  NewTask task;
  task.name = ReadText(parameters, kNameKey);
  if (IsBlank(task.name)) Refuse(kNameKey, "must not be empty");
  task.description = ReadText(parameters, kDescriptionKey, kMaxLongTextBytes);
  task.priority = ReadText(parameters, kPriorityKey);
  task.requester = ReadText(parameters, kRequesterKey);
  task.language = ReadText(parameters, kLanguageKey);
  task.userEmail = ReadText(parameters, kUserEmailKey);
  task.userDomain = ReadText(parameters, kUserDomainKey);
  task.userLogin = ReadText(parameters, kUserLoginKey);
  task.deviceGuid = ReadText(parameters, kDeviceGuidKey);
  task.note = ReadText(parameters, kNotesKey, kMaxLongTextBytes);
  task.agent = caller.agent;
  task.consoleUser = caller.login;
  return task;
}

TaskChange ReadTaskChange(const ZelContainer& parameters) {
  return {ReadTaskId(parameters), ReadText(parameters, kRequesterKey)};
}

std::string ReadNote(const ZelContainer& parameters) {
  std::string note = ReadText(parameters, kNotesKey, kMaxLongTextBytes);
  if (note.empty()) Refuse(kNotesKey, "must not be empty");
  return note;
}

ListRequest ReadListRequest(const ZelContainer& parameters) {
  ListRequest request;
  request.filter.requester = ReadText(parameters, kRequesterKey);
  request.filter.state = ReadText(parameters, kStateKey);
  request.filter.priority = ReadText(parameters, kPriorityKey);
  request.deviceGuid = ReadText(parameters, kDeviceGuidKey);
  return request;
}
