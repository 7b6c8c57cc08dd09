#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "agent/libZel/debug_context.h"
#include "function_module.h"
#include "libZel/container.h"
#include "libZelMarlin.h"
#include "tests/agent/temporary_directory.h"
#include "windows_api.h"

/// How a script ended, as the engine's callers are told.
struct ScriptEnd {
  bool succeeded = false;
  int code = 0;
  int line = 0;
  std::string text;
};

/// One invocation of an action by a script.
struct Invocation {
  std::string agent;
  std::string address;
  std::string action;
  ZelContainer parameters;
};

/// What scripts invoke in these tests: notes the call, answers the action "Fail" with code 7, and
/// adds "Answer" to the container.
class FakeActions {
 public:
  static uint32_t Invoke(const ZelString* agent, const ZelString& address, const ZelString& action,
                         ZelContainer* parameters, void*, uint32_t, uint32_t, bool) {
    const std::scoped_lock lock(Mutex());
    All().push_back({std::string(agent ? agent->Utf8() : ""), std::string(address.Utf8()),
                     std::string(action.Utf8()), *parameters});
    parameters->SetInt32("Answer", 42, kNoIndex);
    return action == ZelString("Fail") ? 7 : 0;
  }
  static std::vector<Invocation> Take() {
    const std::scoped_lock lock(Mutex());
    return std::exchange(All(), {});
  }

 private:
  static std::mutex& Mutex() {
    static std::mutex mutex;
    return mutex;
  }
  static std::vector<Invocation>& All() {
    static std::vector<Invocation> all;
    return all;
  }
};

/// Scripts in a directory of their own, with a log to look at.
class ScriptTest : public testing::Test {
 protected:
  ScriptTest() {
    DebugOptions options;
    options.logFile = directory_.Native() / "log" / "agent.log";
    options.level = ZelDebugLevel::kDetail;
    log_ = std::make_unique<ZelDebugContext>(options);
    LibraryLog().SetContext(log_.get());
    FakeActions::Take();
  }
  ~ScriptTest() override {
    LibraryLog().SetContext(nullptr);
    log_.reset();
  }

  ZelString Write(const std::string& name, const std::string& text) const {
    WriteFile(directory_.Native() / name, text);
    return directory_ / name;
  }
  void WriteSettings(const std::string& text) const { Write("marlin.ini", text); }
  std::string Log() const { return ReadFile(directory_.Native() / "log" / "agent.log"); }
  bool IsLogged(const std::string& text) const { return Log().find(text) != std::string::npos; }

  /// Gives a context what the agent gives it: paths, module, parameters and actions.
  void Prepare(MarlinContext& context, const ZelContainer& parameters = {}) const {
    context.SetExePath(ZEL_TEST_BIN "/zelagent");
    context.SetIniDir(directory_ / "");
    ZelString module = "zelagent.mlx";
    void* library = nullptr;
    ASSERT_TRUE(context.LoadFunctionModule(module, "", &library)) << Log();

    auto container = std::make_unique<ZelContainer>(parameters);
    auto variable = std::make_unique<VarHandle>("ContainerHandle", "ParamsContainer", 0);
    variable->SetHandleValue(container.get());
    context.AddVariable(variable.release(), kVarListGlobal);
    Find<AddContainerVariableFunction>(library, "AddContainerVariable")(&context,
                                                                        container.release());
    Find<SetActionInvokeAddressFunction>(library, "SetActionInvokeAddress")(FakeActions::Invoke);
  }

  template <typename Function>
  static Function Find(void* library, const char* name) {
    return reinterpret_cast<Function>(
        reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(library), name)));
  }

  static ScriptEnd EndOf(MarlinContext& context, bool succeeded) {
    return {succeeded, context.GetContextError(),
            context.GetVariable("ErrLine", kVarListGlobal)->GetIntegerValue(),
            std::string(context.GetContextErrorText().Utf8())};
  }

  static ScriptEnd RunFile(MarlinContext& context, const ZelString& path) {
    context.SetScriptFile(path, 1);
    Stack stack;
    return EndOf(context,
                 context.CompileScriptFile(path) == 1 && context.RunProcedure("main", &stack) == 1);
  }

  /// Runs a whole script.
  ScriptEnd RunText(const std::string& text, const ZelContainer& parameters = {}) const {
    const ZelString path = Write("job.mlx", text);
    MarlinContext context(nullptr);
    Prepare(context, parameters);
    return RunFile(context, path);
  }

  /// Runs the body of a main function, which starts in line 1.
  ScriptEnd RunMain(const std::string& body, const ZelContainer& parameters = {}) const {
    return RunText("function main() " + body + " end", parameters);
  }

  const TemporaryDirectory directory_;

 private:
  std::unique_ptr<ZelDebugContext> log_;
};
