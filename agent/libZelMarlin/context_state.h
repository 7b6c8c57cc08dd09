#pragma once

#include <memory>
#include <string>
#include <vector>

#include "agent/libZelMarlin/engine_settings.h"
#include "agent/libZelMarlin/interpreter.h"
#include "libZel/container.h"
#include "libZelMarlin.h"

/// What a context is made of.
struct MarlinContext::Implementation {
  XmlProxyClient* proxy = nullptr;
  ZelString exePath;
  ZelString iniDirectory;
  ZelString iniPath;
  EngineSettings settings;

  std::vector<std::unique_ptr<Variable>> variables;
  std::vector<std::unique_ptr<ZelContainer>> containers;
  VarHandle errorLine{"Integer", "ErrLine", 0};
  ZelString scriptPath;
  MarlinError error = kMarlinOk;
  ZelString errorText;
  /// Why the script lacks something that it must have; nothing of it runs then.
  MarlinError setupError = kMarlinOk;
  std::string setupErrorText;
  ErrorList errors;
  /// The last member: what finalizers of the script use goes after it.
  std::unique_ptr<Interpreter> interpreter;

  /// Null for want of memory. Throws nothing.
  Interpreter* GetInterpreter(MarlinContext& context);
  VarHandle* FindHandle(const ZelString& name) const;
  void ForgetError();
  /// Has `RunProcedure` fail with this error, the first one of several.
  void FailSetup(MarlinError code, std::string text) noexcept;
  /// Remembers the error, tells the log of it, and returns 1 on success, else 0.
  int Conclude(const ScriptResult& result);
};
