#include "actions/programs/program_launch.h"

#include "module/direct_access.h"
#include "module/module.h"

namespace {

constexpr const char* kQuote = "\"";

/// The path in double quotes; as it stands when it has one at either end already.
ZelString Quoted(const ZelString& path) {
  if (path.StartsWith(kQuote, true) || path.EndsWith(kQuote, true)) return path;
  ZelString quoted;
  return quoted.Printf("\"%S\"", path);
}

}  // namespace

ResultCode CoreUtilsRunProgram(ZelContainer* params) {
  const ZelString path = ReadString(*params, "Path");
  const ZelString parameters = ReadString(*params, "Parameters");
  const ZelString consoleUser = ReadString(*params, kDACurrentConsoleUser);
  const bool inUserSession = ReadBool(*params, "ProgramContext");
  Logger().TraceWithNL("ActionHandler_CoreUtilsRunProgram %S %S", path, parameters);

  // Starting a program counts as writing.
  if (!MayWrite(path, consoleUser)) return kAccessRefused;

  ZelString commandLine;
  commandLine.Printf("%S %S", Quoted(path), parameters);
  params->Clear();

  ZelString proxyPipe;
  ZelAgentGetProxyPipeName(proxyPipe);
  bool failed = false;
  const int started = ExecRedirect(commandLine, failed, nullptr, proxyPipe, "", "", 0, false,
                                   inUserSession, nullptr, false, nullptr);
  return started == 0 || failed ? kFailure : kSuccess;
}
