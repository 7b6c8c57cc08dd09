// host/libZelMarlin: the script engine, and the functions that it hands to scripts.

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "tests/fake_host/ask.h"
#include "tests/fake_host/fake_function_module.h"
#include "tests/fake_host/fake_proxy_client.h"
#include "tests/fake_host/transcript.h"

struct MarlinContext::Implementation {
  ErrorList errors;
  /// Taken over, as by the real engine and its function module.
  std::vector<std::unique_ptr<Variable>> variables;
  std::vector<std::unique_ptr<ZelContainer>> containers;
};

namespace {

/// The only context there is: actions run one at a time here.
const MarlinContext* livingContext = nullptr;

/// Whether variables are made by the fake itself, which is no call of the module's.
bool isMakingVariables = false;

std::string DescribeContainer(const void* container) {
  return container ? Describe(*static_cast<const ZelContainer*>(container)) : "null";
}

std::string DescribeVariable(const Variable* variable) {
  const auto* const handle = dynamic_cast<const VarHandle*>(variable);
  if (!handle) return "no handle";
  return Quote(handle->GetTypeName()) + " " + Quote(handle->GetVarName()) + " " +
         DescribeContainer(handle->GetHandleValue());
}

/// The name of the variable that stands for the container.
std::string NameOf(const MarlinContext::Implementation& context, const ZelContainer* container) {
  for (const auto& variable : context.variables) {
    const auto* const handle = dynamic_cast<const VarHandle*>(variable.get());
    if (handle && handle->GetHandleValue() == container) return Quote(handle->GetVarName());
  }
  return "no variable";
}

std::unique_ptr<VarHandle> MakeVariable(const ZelString& name) {
  isMakingVariables = true;
  auto variable = std::make_unique<VarHandle>("", name, 0);
  isMakingVariables = false;
  return variable;
}

void CheckErrorList(const ErrorList* list) {
  if (!livingContext || list != &livingContext->GetImplementation().errors) {
    Host().Complain("the error list is not the context's own");
  }
}

}  // namespace

VarHandle::VarHandle(const ZelString& typeName, const ZelString& varName, int flags)
    : Variable(varName), typeName_(typeName) {
  if (isMakingVariables) return;
  Host().Note("VarHandle(" + List(Quote(typeName), Quote(varName), std::to_string(flags)) + ")");
}

int32_t VarHandle::GetIntegerValue() const {
  return static_cast<int32_t>(Ask("VarHandle::GetIntegerValue"));
}

ZelString ErrorList::GetErrorText(int code) const {
  CheckErrorList(this);
  return AskText("ErrorList::GetErrorText", std::to_string(code));
}

ZelString ErrorList::GetErrorName(int code) const {
  CheckErrorList(this);
  return AskText("ErrorList::GetErrorName", std::to_string(code));
}

MarlinContext::MarlinContext(XmlProxyClient* proxy)
    : implementation_(std::make_unique<Implementation>()) {
  Host().Note("MarlinContext(" + DescribeClient(proxy) + ")");
  Host().Hold();
  livingContext = this;
}

MarlinContext::~MarlinContext() {
  livingContext = nullptr;
  Host().NoteRelease("~MarlinContext");
}

void MarlinContext::SetXmlProxyClient(XmlProxyClient* proxy) {
  Host().Note("MarlinContext::SetXmlProxyClient(" + DescribeClient(proxy) + ")");
}

void MarlinContext::SetAppInstance(void* instance) {
  Host().Note("MarlinContext::SetAppInstance(" + Pointer(instance) + ")");
}

void MarlinContext::SetExePath(const ZelString& path) {
  Host().Note("MarlinContext::SetExePath(" + Quote(path) + ")");
}

void MarlinContext::SetIniDir(const ZelString& directory) {
  Host().Note("MarlinContext::SetIniDir(" + Quote(directory) + ")");
}

bool MarlinContext::LoadFunctionModule(ZelString& module, const ZelString& iniFile,
                                       void** moduleHandle) {
  const FakeHost::ScriptedAnswer answer =
      Host().Ask("MarlinContext::LoadFunctionModule",
                 List(Quote(module), Quote(iniFile), Pointer(*moduleHandle)));
  if (answer.pointer) *moduleHandle = answer.pointer;
  return answer.value != 0;
}

ZelString MarlinContext::GetIniPath() const {
  return AskText("MarlinContext::GetIniPath");
}

void MarlinContext::AddVariable(Variable* variable, enum_VarListType list) {
  std::unique_ptr<Variable> owned(variable);
  Host().Note("MarlinContext::AddVariable(" +
              List(DescribeVariable(variable), std::to_string(list)) + ")");
  implementation_->variables.push_back(std::move(owned));
}

VarHandle* MarlinContext::GetVariable(const ZelString& name, enum_VarListType list) {
  if (!Ask("MarlinContext::GetVariable", List(Quote(name), std::to_string(list)))) return nullptr;
  std::unique_ptr<VarHandle> variable = MakeVariable(name);
  VarHandle* const result = variable.get();
  implementation_->variables.push_back(std::move(variable));
  return result;
}

void MarlinContext::SetScriptFile(const ZelString& path, int kind) {
  Host().Note("MarlinContext::SetScriptFile(" + List(Quote(path), std::to_string(kind)) + ")");
}

int MarlinContext::CompileScriptFile(const ZelString& path) {
  return AskInt("MarlinContext::CompileScriptFile", Quote(path));
}

int MarlinContext::RunProcedure(const ZelString& name, Stack* stack) {
  return AskInt("MarlinContext::RunProcedure", List(Quote(name), stack ? "stack" : "null"));
}

int MarlinContext::GetContextError() const {
  return AskInt("MarlinContext::GetContextError");
}

ZelString MarlinContext::GetContextErrorText() const {
  return AskText("MarlinContext::GetContextErrorText");
}

const ErrorList& MarlinContext::GetErrorList() const {
  return implementation_->errors;
}

// ---- host/function_module.h ----

void NoteAddContainerVariable(MarlinContext* context, ZelContainer* container) {
  std::unique_ptr<ZelContainer> owned(container);
  const bool isKnown = context && context == livingContext;
  const std::string name =
      isKnown ? NameOf(context->GetImplementation(), container) : "unknown context";
  Host().Note("AddContainerVariable(" + List(name, DescribeContainer(container)) + ")");
  if (isKnown) context->GetImplementation().containers.push_back(std::move(owned));
}

void NoteSetActionInvokeAddress(decltype(&ActionDbInvokeContainer) invoke) {
  const bool isKnown = invoke == &ActionDbInvokeContainer;
  Host().Note(std::string("SetActionInvokeAddress(") +
              (isKnown ? "ActionDbInvokeContainer" : "another function") + ")");
}
