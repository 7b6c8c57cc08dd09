#include "actions/programs/script_runner.h"

#include <memory>

#include "function_module.h"
#include "module/module.h"
#include "windows_api.h"

namespace {

constexpr uint32_t kProxyTimeoutMs = 10000;
constexpr const char* kFunctionModule = "zelagent.mlx";

// The two formats differ by one blank, and have always done so.
constexpr const char* kCompileErrorFormat = "Fatal parse or run time error %S line %u\r\n%S: %S";
constexpr const char* kRunErrorFormat = "Fatal parse or run time error %S line %u\r\n %S: %S";

struct ScriptFunctions {
  AddContainerVariableFunction addContainerVariable;
  SetActionInvokeAddressFunction setActionInvokeAddress;
};

/// Gives the script access to the user's session, where there is one and it can be reached.
void ConnectProxy(MarlinContext& context, XmlProxyClient& proxy) {
  if (!(OSVersion::GetFullVersion() >= OSVersion::FULL_VERSION_WINDOWS_XP)) return;

  ZelString pipeName;
  ZelAgentGetProxyPipeName(pipeName);
  if (pipeName.IsEmpty()) return;

  if (!proxy.Initialise(pipeName, kProxyTimeoutMs, XmlProxyClient::kUserSession)) return;
  context.SetXmlProxyClient(&proxy);
}

void TellAboutAgent(MarlinContext& context) {
  context.SetAppInstance(ZelAgentGetAppHandle());
  ZelString exePath;
  ZelAgentGetExePath(exePath);
  context.SetExePath(exePath);
  ZelString configDirectory;
  ZelAgentGetConfigDir(configDirectory);
  context.SetIniDir(configDirectory);
}

template <typename Function>
void FindFunction(void* library, const char* name, Function* function) {
  // By way of a plain pointer: compilers warn of casts between types of functions.
  auto* const address =
      reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(library), name));
  *function = reinterpret_cast<Function>(address);
}

bool LoadFunctions(MarlinContext& context, ScriptFunctions* functions) {
  ZelString module = kFunctionModule;
  void* library = nullptr;
  // The handle tells whether it worked, whatever the function answers.
  context.LoadFunctionModule(module, "", &library);
  if (!library) {
    Logger().ErrorWithNL("Failed to load module %S using INI file %S", module,
                         context.GetIniPath());
    return false;
  }

  FindFunction(library, "AddContainerVariable", &functions->addContainerVariable);
  FindFunction(library, "SetActionInvokeAddress", &functions->setActionInvokeAddress);
  if (functions->addContainerVariable && functions->setActionInvokeAddress) return true;
  Logger().ErrorWithNL("Failed to get required function addresses");
  return false;
}

/// Hands a copy of the caller's parameters to the script, as its variable "ParamsContainer".
void PassParameters(MarlinContext& context, const ScriptFunctions& functions,
                    const ZelContainer& params) {
  auto container = std::make_unique<ZelContainer>();
  params.GetContainer("Params", container.get(), kNoIndex);

  auto variable = std::make_unique<VarHandle>("ContainerHandle", "", 0);
  variable->SetVarName("ParamsContainer");
  variable->SetHandleValue(container.get());
  context.AddVariable(variable.release(), kVarListGlobal);
  functions.addContainerVariable(&context, container.release());
  functions.setActionInvokeAddress(ActionDbInvokeContainer);
}

bool IsSeparator(const ZelString& text) {
  return text.StartsWith("/") || text.StartsWith("\\");
}

/// Where the script is: a rooted name as it is, any other below the module's data directory.
ZelString ResolveScript(const ZelString& name) {
  ZelString directory;
  SplitPath(name, nullptr, &directory, nullptr, nullptr);
  if (IsSeparator(directory)) return name;
  return CompletePath(ModuleDataDirectory() + "\\" + name);
}

/// Replaces what the container holds by the engine's error.
void ReportError(MarlinContext& context, const char* format, ZelContainer* params) {
  const int code = context.GetContextError();
  const VarHandle* const variable = context.GetVariable("ErrLine", kVarListGlobal);
  const int32_t line = variable ? variable->GetIntegerValue() : 0;
  const ZelString contextText = context.GetContextErrorText();
  const ZelString errorText = context.GetErrorList().GetErrorText(code);
  const ZelString errorName = context.GetErrorList().GetErrorName(code);
  ZelString text;
  text.Printf(format, errorName, static_cast<uint32_t>(line), errorText, contextText);

  params->Clear();
  params->SetString("ErrorText", text, kNoIndex);
  params->SetInt32("ErrorLine", line, kNoIndex);
}

}  // namespace

ResultCode CoreUtilsRunScript(ZelContainer* params) {
  const ZelString name = ReadString(*params, "Name");
  Logger().TraceWithNL("Action_CoreUtilsRunScript %S", name);
  const bool compileOnly = ReadBool(*params, "CompileOnly");

  MarlinContext context(nullptr);
  XmlProxyClient proxy;
  ConnectProxy(context, proxy);
  TellAboutAgent(context);

  ScriptFunctions functions{};
  if (!LoadFunctions(context, &functions)) return kFailure;
  PassParameters(context, functions, *params);

  const ZelString path = ResolveScript(name);
  if (!FileExists(path)) {
    Logger().WarningWithNL("File %S does not exist.", path);
    return kFailure;
  }

  context.SetScriptFile(path, 1);
  if (!context.CompileScriptFile(path)) {
    ReportError(context, kCompileErrorFormat, params);
    Logger().PrintWithNL("Compiling %S failed", path);
    return kFailure;
  }
  if (compileOnly) return kSuccess;

  Stack stack;
  if (!context.RunProcedure("main", &stack)) {
    ReportError(context, kRunErrorFormat, params);
    Logger().PrintWithNL("Running %S failed", path);
    return kFailure;
  }
  return kSuccess;
}
