#include <exception>
#include <string>
#include <string_view>
#include <utility>

#include "agent/libZel/debug_context.h"
#include "agent/libZelMarlin/context_state.h"
#include "agent/libZelMarlin/function_libraries.h"
#include "agent/libZelMarlin/script_source.h"
#include "agent/libZelMarlin/script_state.h"
#include "libZel/path.h"
#include "libZelMarlin.h"

namespace {

constexpr const char* kDefaultIniFile = "marlin.ini";
constexpr const char* kErrorLineName = "ErrLine";

/// How many scripts run inside each other on this thread.
thread_local int runningScripts = 0;

class RunningScript {
 public:
  RunningScript() { ++runningScripts; }
  ~RunningScript() { --runningScripts; }
  RunningScript(const RunningScript&) = delete;
  RunningScript& operator=(const RunningScript&) = delete;
};

/// Runs `operation` at the library's boundary, where no exception may pass.
template <typename Result, typename Operation>
Result Guarded(const char* what, const Result& failure, Operation operation) noexcept {
  try {
    return operation();
  } catch (const std::exception& error) {
    try {
      LibraryLog().ErrorWithNL("%s failed: %s", what, error.what());
    } catch (const std::exception&) {
      // Without memory there is no log line either.
    }
  }
  return failure;
}

void LogLines(std::string_view text) {
  while (!text.empty()) {
    const size_t end = text.find('\n');
    LibraryLog().ErrorWithNL("%S", ZelString(text.substr(0, end)));
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
  }
}

ZelString DirectoryOf(const ZelString& path) {
  ZelString drive;
  ZelString directory;
  SplitPath(path, &drive, &directory, nullptr, nullptr);
  return drive + directory;
}

/// The last error when there is no memory to tell more about it.
int ConcludeWithoutMemory(MarlinContext::Implementation& context) noexcept {
  context.error = kMarlinMemory;
  context.errorText.Clear();
  return 0;
}

}  // namespace

Interpreter* MarlinContext::Implementation::GetInterpreter(MarlinContext& context) {
  if (interpreter != nullptr) return interpreter.get();
  interpreter = Interpreter::Make(context, settings);
  if (interpreter != nullptr && !scriptPath.IsEmpty()) interpreter->SetScriptPath(scriptPath);
  return interpreter.get();
}

VarHandle* MarlinContext::Implementation::FindHandle(const ZelString& name) const {
  // The one that was added last hides the others.
  for (auto variable = variables.rbegin(); variable != variables.rend(); ++variable) {
    if ((*variable)->GetVarName() == name) return dynamic_cast<VarHandle*>(variable->get());
  }
  return nullptr;
}

void MarlinContext::Implementation::ForgetError() {
  error = kMarlinOk;
  errorText.Clear();
  errorLine.SetIntegerValue(0);
}

void MarlinContext::Implementation::FailSetup(MarlinError code, std::string text) noexcept {
  if (setupError != kMarlinOk) return;
  setupError = code;
  setupErrorText = std::move(text);
}

int MarlinContext::Implementation::Conclude(const ScriptResult& result) {
  ForgetError();
  if (result.error == kMarlinOk) return 1;
  error = result.error;
  errorText = result.text;
  errorLine.SetIntegerValue(result.line);
  LibraryLog().ErrorWithNL("%S: %S", errors.GetErrorName(error), errorText);
  LogLines(result.trace);
  return 0;
}

MarlinContext::MarlinContext(XmlProxyClient* proxy)
    : implementation_(std::make_unique<Implementation>()) {
  implementation_->proxy = proxy;
}

MarlinContext::~MarlinContext() {
  // It may be gone already, and the script's finalizers run now.
  implementation_->proxy = nullptr;
  implementation_->interpreter.reset();
}

void MarlinContext::SetXmlProxyClient(XmlProxyClient* proxy) {
  implementation_->proxy = proxy;
}

XmlProxyClient* MarlinContext::GetXmlProxyClient() const {
  return implementation_->proxy;
}

// Function modules reach the agent through its libraries: nothing needs the handle.
void MarlinContext::SetAppInstance(void* /*instance*/) {}

void MarlinContext::SetExePath(const ZelString& path) {
  Guarded("Telling a script of the executable", 0, [&] {
    implementation_->exePath = path;
    return 0;
  });
}

void MarlinContext::SetIniDir(const ZelString& directory) {
  Guarded("Telling a script of the INI directory", 0, [&] {
    implementation_->iniDirectory = directory;
    return 0;
  });
}

bool MarlinContext::LoadFunctionModule(ZelString& module, const ZelString& iniFile,
                                       void** moduleHandle) {
  return Guarded("Loading a function module", false, [&] {
    Implementation& self = *implementation_;
    self.iniPath = self.iniDirectory + (iniFile.IsEmpty() ? ZelString(kDefaultIniFile) : iniFile);
    self.settings = ReadEngineSettings(self.iniPath);
    if (self.interpreter != nullptr) self.interpreter->SetSettings(self.settings);

    const ZelString path = DirectoryOf(self.exePath) + module;
    const FunctionLibrary library = LoadFunctionLibrary(path);
    if (library.handle == nullptr) {
      LibraryLog().ErrorWithNL("The function module %S cannot be loaded: %S", path,
                               ZelString(library.reason));
      return false;
    }
    if (library.open != nullptr) reinterpret_cast<MarlinModuleOpenFunction>(library.open)(this);
    *moduleHandle = library.handle;
    return true;
  });
}

ZelString MarlinContext::GetIniPath() const {
  return implementation_->iniPath;
}

void MarlinContext::AddVariable(Variable* variable, enum_VarListType /*list*/) {
  std::unique_ptr<Variable> owned(variable);
  if (owned == nullptr) return;
  Implementation& self = *implementation_;
  const bool isAdded = Guarded("Adding a variable to a script", false, [&] {
    self.variables.push_back(std::move(owned));
    const auto* const handle = dynamic_cast<const VarHandle*>(self.variables.back().get());
    if (handle == nullptr) return true;
    Interpreter* const interpreter = self.GetInterpreter(*this);
    if (interpreter == nullptr) return false;
    const ScriptResult result = interpreter->SetHandle(
        handle->GetVarName(), handle->GetHandleValue(), handle->GetIntegerValue());
    if (result.error != kMarlinOk) self.FailSetup(result.error, result.text);
    return true;
  });
  if (!isAdded) self.FailSetup(kMarlinMemory, {});
}

VarHandle* MarlinContext::GetVariable(const ZelString& name, enum_VarListType /*list*/) {
  if (name == ZelString(kErrorLineName)) return &implementation_->errorLine;
  return implementation_->FindHandle(name);
}

void MarlinContext::SetScriptFile(const ZelString& path, int /*kind*/) {
  Guarded("Telling a script of its file", 0, [&] {
    implementation_->scriptPath = path;
    Interpreter* const interpreter = implementation_->GetInterpreter(*this);
    if (interpreter != nullptr) interpreter->SetScriptPath(path);
    return 0;
  });
}

int MarlinContext::CompileScriptFile(const ZelString& path) {
  ConcludeWithoutMemory(*implementation_);
  return Guarded("Compiling a script", 0, [&] {
    Implementation& self = *implementation_;
    const ScriptSource source = ReadScriptSource(path);
    if (source.error != kMarlinOk) {
      return self.Conclude({source.error, std::string(source.reason.Utf8()), 0, {}});
    }
    if (self.scriptPath.IsEmpty()) SetScriptFile(path, 1);
    Interpreter* const interpreter = self.GetInterpreter(*this);
    if (interpreter == nullptr) {
      return self.Conclude({kMarlinMemory, "there is no memory for an interpreter", 0, {}});
    }
    return self.Conclude(interpreter->Compile(source.text));
  });
}

int MarlinContext::RunProcedure(const ZelString& name, Stack* /*stack*/) {
  ConcludeWithoutMemory(*implementation_);
  return Guarded("Running a script", 0, [&] {
    Implementation& self = *implementation_;
    if (self.setupError != kMarlinOk) {
      return self.Conclude({self.setupError, self.setupErrorText, 0, {}});
    }
    if (runningScripts >= self.settings.depth) {
      const std::string limit = std::to_string(self.settings.depth);
      return self.Conclude(
          {kMarlinDepth, "a script that runs scripts may do so " + limit + " levels deep", 0, {}});
    }
    Interpreter* const interpreter = self.GetInterpreter(*this);
    if (interpreter == nullptr) {
      return self.Conclude({kMarlinMemory, "there is no memory for an interpreter", 0, {}});
    }
    const RunningScript running;
    return self.Conclude(interpreter->Run(name));
  });
}

int MarlinContext::GetContextError() const {
  return implementation_->error;
}

ZelString MarlinContext::GetContextErrorText() const {
  return implementation_->errorText;
}

const ErrorList& MarlinContext::GetErrorList() const {
  return implementation_->errors;
}

bool RunInScript(MarlinContext& context, lua_CFunction body, void* argument) noexcept {
  MarlinContext::Implementation& self = context.GetImplementation();
  const bool isDone = Guarded("Adding functions to a script", false, [&] {
    Interpreter* const interpreter = self.GetInterpreter(context);
    if (interpreter == nullptr) {
      LibraryLog().ErrorWithNL("There is no memory for the interpreter of a script");
      return false;
    }
    const ScriptResult result = interpreter->RunProtected(body, argument);
    if (result.error == kMarlinOk) return true;
    self.FailSetup(result.error, result.text);
    LibraryLog().ErrorWithNL("Functions could not be added to a script: %S",
                             ZelString(result.text));
    return false;
  });
  // Unless the error is known already.
  if (!isDone) self.FailSetup(kMarlinMemory, {});
  return isDone;
}

bool KeepContainer(MarlinContext& context, std::unique_ptr<ZelContainer> container) noexcept {
  MarlinContext::Implementation& self = context.GetImplementation();
  const bool isKept = Guarded("Keeping the parameters of a script", false, [&] {
    self.containers.push_back(std::move(container));
    return true;
  });
  if (!isKept) self.FailSetup(kMarlinMemory, {});
  return isKept;
}

VarHandle* FindHandleVariable(const MarlinContext& context, const void* object) noexcept {
  if (object == nullptr) return nullptr;
  for (const auto& variable : context.GetImplementation().variables) {
    auto* const handle = dynamic_cast<VarHandle*>(variable.get());
    if (handle != nullptr && handle->GetHandleValue() == object) return handle;
  }
  return nullptr;
}
