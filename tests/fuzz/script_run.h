#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "function_module.h"
#include "libZel/container.h"
#include "libZelMarlin.h"
#include "tests/fuzz/require.h"
#include "tests/fuzz/scratch.h"
#include "windows_api.h"

/// A script with the functions of the agent and tight limits. What it invokes answers nothing.
class ScriptRun {
 public:
  explicit ScriptRun(const ZelContainer& parameters) {
    static const bool hasSettings =
        (WriteBytes(Files() / "marlin.ini",
                    "[limits]\nmemory_mib = 8\ninstructions = 100000\ndepth = 2\n"),
         true);
    Require(hasSettings);
    context_.SetExePath(ZEL_FUZZ_BIN "/zelagent");
    context_.SetIniDir(ZelString((Files() / "").native()));
    ZelString module = "zelagent.mlx";
    void* library = nullptr;
    Require(context_.LoadFunctionModule(module, "", &library));

    parameters_ = new ZelContainer(parameters);
    auto variable = std::make_unique<VarHandle>("ContainerHandle", "ParamsContainer", 0);
    variable->SetHandleValue(parameters_);
    context_.AddVariable(variable.release(), kVarListGlobal);
    Find<AddContainerVariableFunction>(library, "AddContainerVariable")(&context_, parameters_);
    Find<SetActionInvokeAddressFunction>(library, "SetActionInvokeAddress")(Refuse);
  }

  /// Compiles the script and runs its function `main`.
  bool Run(std::string_view text) {
    const std::filesystem::path file = Files() / "job.mlx";
    WriteBytes(file, text);
    const ZelString path(file.native());
    context_.SetScriptFile(path, 1);
    Stack stack;
    return context_.CompileScriptFile(path) == 1 && context_.RunProcedure("main", &stack) == 1;
  }

  int Code() const { return context_.GetContextError(); }
  std::string Reason() const { return std::string(context_.GetContextErrorText().Utf8()); }
  int Line() { return context_.GetVariable("ErrLine", kVarListGlobal)->GetIntegerValue(); }
  /// What the script made of its parameters.
  const ZelContainer& Parameters() const { return *parameters_; }

 private:
  static const Scratch& Files() {
    static const Scratch files;
    return files;
  }
  static uint32_t Refuse(const ZelString*, const ZelString&, const ZelString&, ZelContainer*, void*,
                         uint32_t, uint32_t, bool) {
    return kInvokeFailed;
  }
  template <typename Function>
  static Function Find(void* library, const char* name) {
    return reinterpret_cast<Function>(
        reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(library), name)));
  }

  MarlinContext context_{nullptr};
  ZelContainer* parameters_ = nullptr;  // the context's
};
