#include "actions/tasks/helpdesk_tasks.h"

#include "module/invocation.h"

namespace {

constexpr const char* kName = "_DB_ATTR_NAME_";
constexpr const char* kDescription = "_DB_ATTR_DESCRIPTION_";
constexpr const char* kPriority = "_DB_ATTR_PRIORITY_";
constexpr const char* kRequestedBy = "_DB_ATTR_REQUESTEDBY_";
constexpr const char* kNotes = "_DB_ATTR_NOTES_";
constexpr const char* kStatus = "_DB_ATTR_STATUS_";
constexpr const char* kObjectId = "ObjectId";
constexpr const char* kGuid = "GUID";

void SetText(ZelContainer* request, const char* key, const ZelString& text) {
  request->SetString(key, text, kNoIndex);
}

int32_t ReadObjectId(const ZelContainer& params) {
  int32_t id = 0;
  params.GetInt32(kObjectId, &id, kNoIndex);
  return id;
}

/// Asks for this device's identity. Whether that succeeds is not looked at: the master then gets an
/// empty one. Whatever else the answer leaves in the request travels on.
ZelString AskForIdentity(ZelContainer* request) {
  InvokeHere("IdentityGetGUID", request);
  return ReadString(*request, kGuid);
}

/// On the master's side this agent is the user who asks.
void SetRequestInfo(ZelContainer* request) {
  ZelString name;
  ZelAgentGetName(name);
  ZelContainer info;
  info.SetString("HttpProtocolRequestUser", name, kNoIndex);
  request->SetContainer("HttpProtocolRequestInfo", info, kNoIndex);
}

void SetDevice(ZelContainer* request) {
  const ZelString guid = AskForIdentity(request);
  SetText(request, kGuid, guid);
  SetRequestInfo(request);
}

struct Verdict {
  bool result = false;
  ResultCode code = kSuccess;
};

Verdict AskMaster(const ZelString& action, ZelContainer* request) {
  if (InvokeOnMaster(action, request) != 0) return {false, kMasterNotInvoked};
  return {ReadBool(*request, kResult), kSuccess};
}

}  // namespace

ResultCode CoreUtilsCreateTask(ZelContainer* params) {
  const ZelString name = ReadString(*params, kName);
  const ZelString description = ReadString(*params, kDescription);
  const ZelString priority = ReadString(*params, kPriority);
  const ZelString requestedBy = ReadString(*params, kRequestedBy);
  const ZelString language = ReadString(*params, "Language");
  const ZelString notes = ReadString(*params, kNotes);
  const ZelString userEmail = ReadString(*params, "UserEmail");
  const ZelString userDomain = ReadString(*params, "UserDomain");
  const ZelString userLogin = ReadString(*params, "UserLogin");
  const ZelString userPassword = ReadString(*params, "UserPass");

  ZelContainer request;
  const ZelString guid = AskForIdentity(&request);
  SetText(&request, "UserDomain", userDomain);
  SetText(&request, "UserLogin", userLogin);
  SetText(&request, "UserPass", userPassword);
  SetText(&request, kGuid, guid);
  SetRequestInfo(&request);
  SetText(&request, "ObjectName", name);
  SetText(&request, kDescription, description);
  SetText(&request, kPriority, priority);
  SetText(&request, kRequestedBy, requestedBy);
  SetText(&request, kNotes, notes);
  SetText(&request, "UserEmail", userEmail);
  SetText(&request, "Language", language);

  const Verdict verdict = AskMaster("TrnDbCreateTask", &request);
  params->SetBool(kResult, verdict.result, kNoIndex);
  return kSuccess;
}

ResultCode CoreUtilsCloseTask(ZelContainer* params) {
  const int32_t id = ReadObjectId(*params);
  const ZelString requestedBy = ReadString(*params, kRequestedBy);

  ZelContainer request;
  SetDevice(&request);
  request.SetInt32(kObjectId, id, kNoIndex);
  SetText(&request, kRequestedBy, requestedBy);

  const Verdict verdict = AskMaster("TrnDbCloseTask", &request);
  params->SetBool(kResult, verdict.result, kNoIndex);
  return kSuccess;
}

ResultCode CoreUtilsTaskAddNote(ZelContainer* params) {
  const int32_t id = ReadObjectId(*params);
  const ZelString requestedBy = ReadString(*params, kRequestedBy);
  const ZelString note = ReadString(*params, kNotes);

  ZelContainer request;
  SetDevice(&request);
  request.SetInt32(kObjectId, id, kNoIndex);
  SetText(&request, kRequestedBy, requestedBy);
  SetText(&request, kNotes, note);

  const Verdict verdict = AskMaster("TrnDbTaskAddNote", &request);
  params->SetBool(kResult, verdict.result, kNoIndex);
  return kSuccess;
}

ResultCode CoreUtilsTaskGetList(ZelContainer* params) {
  const ZelString requestedBy = ReadString(*params, kRequestedBy);
  const ZelString status = ReadString(*params, kStatus);
  const ZelString priority = ReadString(*params, kPriority);

  ZelContainer request;
  SetDevice(&request);
  SetText(&request, kRequestedBy, requestedBy);
  SetText(&request, kStatus, status);
  SetText(&request, kPriority, priority);
  request.SetBool("FromHCHL", true, kNoIndex);

  if (InvokeOnMaster("TrnDbTaskGetList", &request) != 0) return kSuccess;

  const int count = request.CountValues(kValues);
  ZelContainer task;
  for (int index = 0; index < count; ++index) {
    request.GetContainer(kValues, &task, static_cast<uint32_t>(index));
    params->SetContainer(kValues, task, static_cast<uint32_t>(index));
    task.Clear();
  }
  return kSuccess;
}

ResultCode CoreUtilsCheckTask(ZelContainer* params) {
  ZelContainer request;
  SetRequestInfo(&request);

  const Verdict verdict = AskMaster("TrnDbTaskCheckRequirements", &request);
  params->SetBool(kResult, verdict.result, kNoIndex);
  params->SetInt32(kErrorCode, static_cast<int32_t>(verdict.code), kNoIndex);
  return verdict.code;
}
