#include "module/direct_access.h"

#include "module/action.h"
#include "module/invocation.h"
#include "module/module.h"

bool IsAccessAllowed(const ZelString& path, const ZelString& login, bool forReading) {
  if (UrlParseInet::CanHandleUrl(path)) return true;

  ZelContainer request;
  request.SetString("Class", "File System", kNoIndex);
  request.SetString("Name", path, kNoIndex);
  request.SetString("Login", login, kNoIndex);
  request.SetString("Access", forReading ? "Read" : "Write", kNoIndex);
  const uint32_t code = InvokeHere("PrivacyCheck", &request);
  if (code != kSuccess) return false;

  int32_t verdict = 0;
  request.GetInt32(kResult, &verdict, kNoIndex);

  return forReading ? verdict == 1 || verdict == 2 : verdict == 3 || verdict == 4;
}

void AuditDirectAccess(const ZelContainer& requestInfo, const ZelString& consoleUser,
                       const ZelString& event) {
  const ZelString address = ReadString(requestInfo, kHttpProtocolRequestAddress);

  ZelString message;
  message.Printf("%S%s", event, ", class Direct Access");

  Logger().AuditWithNL(consoleUser, address, "%S", message);
}
