#include "libZelMarlin.h"

struct MarlinContext::Implementation {
  ErrorList errors;
};

MarlinContext::MarlinContext(XmlProxyClient*)
    : implementation_(std::make_unique<Implementation>()) {}

MarlinContext::~MarlinContext() = default;

void MarlinContext::SetXmlProxyClient(XmlProxyClient*) {}

XmlProxyClient* MarlinContext::GetXmlProxyClient() const {
  return nullptr;
}

void MarlinContext::SetAppInstance(void*) {}

void MarlinContext::SetExePath(const ZelString&) {}

void MarlinContext::SetIniDir(const ZelString&) {}

bool MarlinContext::LoadFunctionModule(ZelString&, const ZelString&, void**) {
  return false;
}

ZelString MarlinContext::GetIniPath() const {
  return "";
}

void MarlinContext::AddVariable(Variable* variable, enum_VarListType) {
  delete variable;
}

VarHandle* MarlinContext::GetVariable(const ZelString&, enum_VarListType) {
  return nullptr;
}

void MarlinContext::SetScriptFile(const ZelString&, int) {}

int MarlinContext::CompileScriptFile(const ZelString&) {
  return 0;
}

int MarlinContext::RunProcedure(const ZelString&, Stack*) {
  return 0;
}

int MarlinContext::GetContextError() const {
  return kMarlinInternal;
}

ZelString MarlinContext::GetContextErrorText() const {
  return "";
}

const ErrorList& MarlinContext::GetErrorList() const {
  return implementation_->errors;
}
