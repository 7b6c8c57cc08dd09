#include <algorithm>
#include <string>
#include <thread>
#include <vector>

#include "agent/libZelMarlin/interruption.h"
#include "agent/libZelMarlin/script_state.h"
#include "tests/agent/script_test.h"

namespace {

class MarlinContextTest : public ScriptTest {};

TEST_F(MarlinContextTest, RunsTheChunkAndThenTheProcedure) {
  const ScriptEnd end = RunText("print('chunk') function main() print('main', 1, true) end");
  EXPECT_TRUE(end.succeeded);
  EXPECT_EQ(end.code, kMarlinOk);
  EXPECT_LT(Log().find("print [libZel] job.mlx: chunk"),
            Log().find("print [libZel] job.mlx: main\\x091\\x09true"));
}

TEST_F(MarlinContextTest, RunsNothingWhileItCompiles) {
  const ZelString path = Write("job.mlx", "print('ran')");
  MarlinContext context(nullptr);
  Prepare(context);
  context.SetScriptFile(path, 1);
  EXPECT_EQ(context.CompileScriptFile(path), 1);
  EXPECT_FALSE(IsLogged("ran"));
}

TEST_F(MarlinContextTest, NamesEachError) {
  const ErrorList errors;
  EXPECT_EQ(errors.GetErrorName(kMarlinSyntax), ZelString("MARLIN_ERROR_SYNTAX"));
  EXPECT_EQ(errors.GetErrorText(kMarlinSyntax), ZelString("The script is not well-formed"));
  EXPECT_EQ(errors.GetErrorName(99), ZelString("MARLIN_ERROR_UNKNOWN"));
  std::vector<std::string> names;
  for (int code = kMarlinOk; code <= kMarlinInterrupted; ++code) {
    const std::string name(errors.GetErrorName(code).Utf8());
    EXPECT_EQ(std::count(names.begin(), names.end(), name), 0) << name;
    EXPECT_NE(name, "MARLIN_ERROR_UNKNOWN");
    EXPECT_FALSE(errors.GetErrorText(code).IsEmpty());
    names.push_back(name);
  }
}

TEST_F(MarlinContextTest, CannotReadMissingFilesAndDirectories) {
  MarlinContext missing(nullptr);
  EXPECT_EQ(RunFile(missing, directory_ / "none.mlx").code, kMarlinNotReadable);
  MarlinContext directory(nullptr);
  EXPECT_EQ(RunFile(directory, FromNativePath(directory_.Native())).code, kMarlinNotReadable);
}

TEST_F(MarlinContextTest, ReadsUpTo16MiB) {
  const std::string head = "function main() end --";
  const size_t most = 16 * 1024 * 1024;
  EXPECT_TRUE(RunText(head + std::string(most - head.size(), 'x')).succeeded);
  const ScriptEnd end = RunText(head + std::string(most - head.size() + 1, 'x'));
  EXPECT_EQ(end.code, kMarlinNotReadable);
  EXPECT_EQ(end.text, "job.mlx: the file is larger than 16 MiB");
}

TEST_F(MarlinContextTest, TakesLineEndsMarksAndLoaderLinesOfAllKinds) {
  EXPECT_TRUE(RunText("\xEF\xBB\xBF"
                      "function main()\r\nend\r\n")
                  .succeeded);
  EXPECT_EQ(RunText("\xEF\xBB\xBF#!/usr/bin/lua\r\nfunction main()\r\nerror('x')\r\nend").line, 3);
  EXPECT_EQ(RunText("# comment").code, kMarlinNoProcedure);
}

TEST_F(MarlinContextTest, RefusesWhatIsNoText) {
  EXPECT_EQ(RunText("\x1BLua").code, kMarlinNotText);
  EXPECT_EQ(RunText("#!/bin/lua\n\x1BLua").code, kMarlinNotText);
  EXPECT_EQ(RunText(std::string("\xFF\xFEx\0", 4)).code, kMarlinNotText);
  EXPECT_EQ(RunText(std::string("\xFE\xFF\0x", 4)).code, kMarlinNotText);
  EXPECT_EQ(RunText(std::string("p\0r\0", 4)).code, kMarlinNotText);
}

TEST_F(MarlinContextTest, TellsTheLineOfASyntaxError) {
  const ScriptEnd end = RunText("\n\nfunction main( end");
  EXPECT_EQ(end.code, kMarlinSyntax);
  EXPECT_EQ(end.line, 3);
  EXPECT_EQ(end.text, "job.mlx:3: <name> or '...' expected near 'end'");
}

TEST_F(MarlinContextTest, TellsTheLineOfAScriptWithALongName) {
  const ZelString path = Write(std::string(80, 'n') + ".mlx", "\n=");
  MarlinContext context(nullptr);
  const ScriptEnd end = RunFile(context, path);
  EXPECT_EQ(end.code, kMarlinSyntax);
  EXPECT_EQ(end.line, 2);
}

TEST_F(MarlinContextTest, TellsOfAMissingProcedure) {
  EXPECT_EQ(RunText("").code, kMarlinNoProcedure);
  const ScriptEnd end = RunText("main = 5");
  EXPECT_EQ(end.code, kMarlinNoProcedure);
  EXPECT_EQ(end.text, "job.mlx: there is no function main");
  EXPECT_EQ(end.line, 0);
}

TEST_F(MarlinContextTest, RunsNothingThatWasNotCompiled) {
  MarlinContext context(nullptr);
  Stack stack;
  EXPECT_EQ(context.RunProcedure("main", &stack), 0);
  EXPECT_EQ(context.GetContextError(), kMarlinInternal);
}

TEST_F(MarlinContextTest, TellsLineTextAndCallsOfAnError) {
  const ScriptEnd end = RunText("function main()\n  local x = nil\n  x()\nend");
  EXPECT_EQ(end.code, kMarlinRuntime);
  EXPECT_EQ(end.line, 3);
  EXPECT_EQ(end.text, "job.mlx:3: attempt to call a nil value (local 'x')");
  EXPECT_TRUE(IsLogged("error [libZel] MARLIN_ERROR_RUNTIME: job.mlx:3:"));
  EXPECT_TRUE(IsLogged("error [libZel] stack traceback:"));
  EXPECT_TRUE(IsLogged("job.mlx:3: in function 'main'"));
}

TEST_F(MarlinContextTest, TellsTheScriptsLineOfAnErrorInAModule) {
  Write("helper.lua", "return function()\n\n\n\nerror('deep') end");
  const ScriptEnd end = RunText("local f = require 'helper'\nfunction main()\n  f()\nend");
  EXPECT_EQ(end.code, kMarlinRuntime);
  EXPECT_EQ(end.line, 3);
  EXPECT_NE(end.text.find("helper.lua:5: deep"), std::string::npos) << end.text;
}

TEST_F(MarlinContextTest, DescribesErrorsThatAreNoTexts) {
  EXPECT_EQ(RunMain("error({})").text, "(the error object is a table value)");
  EXPECT_EQ(RunMain("error()").text, "(the error object is a nil value)");
  EXPECT_EQ(RunMain("error(12)").text, "12");
  EXPECT_EQ(RunMain("error(setmetatable({}, {__tostring = function() return 'mine' end}))").text,
            "mine");
  EXPECT_EQ(RunMain("error(setmetatable({}, {__tostring = function() error({}) end}))").code,
            kMarlinRuntime);
}

TEST_F(MarlinContextTest, KeepsLongMessagesShort) {
  EXPECT_LT(RunMain("error(string.rep('x', 1000000))").text.size(), 9000U);
}

TEST_F(MarlinContextTest, ForgetsTheErrorOfTheRunBefore) {
  const ZelString path = Write("job.mlx", "function main() error('x') end function other() end");
  MarlinContext context(nullptr);
  EXPECT_FALSE(RunFile(context, path).succeeded);
  Stack stack;
  const ScriptEnd end = EndOf(context, context.RunProcedure("other", &stack) == 1);
  EXPECT_TRUE(end.succeeded);
  EXPECT_EQ(end.line, 0);
  EXPECT_EQ(end.text, "");
}

// The end by os.exit.

TEST_F(MarlinContextTest, EndsWithExit) {
  for (const char* const success : {"", "true", "0", "nil"}) {
    EXPECT_TRUE(RunMain(std::string("os.exit(") + success + ") error('on')").succeeded) << success;
  }
  const ScriptEnd end = RunMain("os.exit(3)");
  EXPECT_EQ(end.code, kMarlinExit);
  EXPECT_EQ(end.line, 1);
  EXPECT_EQ(end.text, "job.mlx:1: the script has ended itself with 3");
  EXPECT_EQ(RunMain("os.exit(false)").code, kMarlinExit);
}

TEST_F(MarlinContextTest, EndsWhereverExitIsCalled) {
  for (const char* const settings : {"", "[limits]\ninstructions = 0\n"}) {
    WriteSettings(settings);
    for (const char* const call :
         {"pcall(os.exit, 3)", "xpcall(os.exit, print, 3)", "xpcall(os.exit, os.exit, 3)",
          "coroutine.wrap(os.exit)(3)", "coroutine.resume(coroutine.create(os.exit), 3)",
          "load(function() os.exit(3) end)",
          "pcall(pcall, coroutine.wrap(function() os.exit(3) end))",
          "setmetatable({}, {__gc = function() os.exit(3) end}) collectgarbage()",
          "local t <close> = setmetatable({}, {__close = function() print('on') end}) "
          "os.exit(3)"}) {
      EXPECT_EQ(RunMain(std::string(call) + " print('on') error('on')").code, kMarlinExit) << call;
    }
  }
  EXPECT_FALSE(IsLogged(": on"));
}

TEST_F(MarlinContextTest, RunsFinalizersAfterExit) {
  RunMain("x = setmetatable({}, {__gc = function() print('tidied') end}) os.exit(1)");
  EXPECT_TRUE(IsLogged("job.mlx: tidied"));
}

// Limits.

class LimitsTest : public ScriptTest {
 protected:
  LimitsTest() { WriteSettings("[limits]\ninstructions = 200000\nmemory_mib = 8\ndepth = 3\n"); }
};

TEST_F(LimitsTest, EndEndlessLoopsWhateverCatchesThem) {
  const std::string loop = "function() while true do end end";
  for (const std::string& body : std::vector<std::string>{
           "(" + loop + ")()", "while true do pcall(" + loop + ") end",
           "pcall(pcall, " + loop + ")", "xpcall(" + loop + ", " + loop + ")",
           "coroutine.wrap(" + loop + ")()",
           "while true do coroutine.resume(coroutine.create(" + loop + ")) end",
           "while true do coroutine.wrap(function() end)() end",
           "coroutine.wrap(function() local x <close> = setmetatable({}, {__close = " + loop +
               "}) while true do end end)()",
           "local x <close> = setmetatable({}, {__close = " + loop + "}) while true do end",
           "error(setmetatable({}, {__tostring = " + loop + "}))",
           "load(" + loop + ") while true do end", "string.gsub('x', 'x', " + loop + ")",
           "setmetatable({}, {__gc = " + loop + "}) collectgarbage() while true do end",
           "table.sort({1, 2, 3}, " + loop + ")",
           "local function f() return pcall(f) end while true do f() end"}) {
    const ScriptEnd end = RunMain(body);
    EXPECT_EQ(end.code, kMarlinInstructions) << body << ": " << end.text;
  }
}

TEST_F(LimitsTest, TellWhereTheScriptWas) {
  const ScriptEnd end = RunText("function main()\n\nwhile true do end end");
  EXPECT_EQ(end.line, 3);
  EXPECT_EQ(end.text, "job.mlx:3: the script has run for more than 200000 instructions");
}

TEST_F(LimitsTest, CountEachRunAnew) {
  const ZelString path = Write("job.mlx", "function main() for i = 1, 60000 do end end");
  MarlinContext context(nullptr);
  Prepare(context);
  EXPECT_TRUE(RunFile(context, path).succeeded);
  Stack stack;
  for (int i = 0; i < 5; ++i) EXPECT_EQ(context.RunProcedure("main", &stack), 1);
}

TEST_F(LimitsTest, EndFinalizersWhenTheScriptIsClosed) {
  const std::string finalizer = "setmetatable({}, {__gc = function() while true do end end})";
  EXPECT_TRUE(RunMain("x = " + finalizer + " y = " + finalizer).succeeded);
  EXPECT_TRUE(IsLogged("its finalizers were ended"));
}

TEST_F(LimitsTest, AreNotTakenOff) {
  EXPECT_TRUE(RunMain("assert(debug.sethook == nil and debug.getregistry == nil)"
                      "assert(debug.setmetatable == nil and debug.setupvalue == nil)"
                      "assert(debug.getmetatable(io.stdout) == false)"
                      "assert(getmetatable(io.stdout) == false)"
                      "assert(getmetatable('').__index == string)")
                  .succeeded);
}

TEST_F(LimitsTest, RefuseMemory) {
  WriteSettings("[limits]\nmemory_mib = 8\n");
  for (const char* const body :
       {"local t = {} for i = 1, math.huge do t[i] = {i} end", "string.rep('x', 1e8)",
        "local s = 'x' while true do s = s .. s end",
        "coroutine.wrap(function() local s = 'x' while true do s = s .. s end end)()",
        "local c = container.new() local s = string.rep('x', 1e6) "
        "for i = 1, 100 do c:set_string('k' .. i, s) end",
        "local s = string.rep('x', 1e6) local t = {} for i = 1, 100 do t['k' .. i] = s end "
        "container.new(t)"}) {
    const ScriptEnd end = RunMain(body);
    EXPECT_EQ(end.code, kMarlinMemory) << body << ": " << end.text;
    EXPECT_NE(end.text.find("not enough memory (it may have 8 MiB)"), std::string::npos)
        << end.text;
  }
}

TEST_F(LimitsTest, LetAScriptGoOnWithLessMemory) {
  EXPECT_TRUE(RunMain("assert(not pcall(string.rep, 'x', 1e8)) "
                      "for i = 1, 100 do assert(#string.rep('x', 1e6) == 1e6) end")
                  .succeeded);
}

TEST_F(LimitsTest, HideTheFunctionsOfTheEngine) {
  const ScriptEnd end = RunText(R"(
    local function functions_of(name, t, seen)
      if seen[t] then return end
      seen[t] = true
      for key, value in pairs(t) do
        if type(value) == 'table' then functions_of(name .. '.' .. tostring(key), value, seen) end
        if type(value) == 'function' and value ~= main then
          for i = 1, 3 do
            assert(select('#', debug.getupvalue(value, i)) == 1, name .. '.' .. key)
            assert(debug.getupvalue(value, i) == nil and debug.upvalueid(value, i) == nil)
          end
          assert(debug.getlocal(value, 1) == nil)
        end
      end
    end
    -- Every function that is on the stack, and every value of it that is shown.
    local function look(...)
      for level = 0, 20 do
        local call = debug.getinfo(level)
        if not call then break end
        assert(call.what ~= 'C' or call.func == nil)
        for _, what in ipairs{'f', 'nSf', 'fL'} do
          local func = debug.getinfo(level, what).func
          assert(func == nil or call.what ~= 'C')
        end
        for i = 1, 100 do
          local name, value = debug.getlocal(level, i)
          if not name then break end
          assert(call.what ~= 'C' and not name:find('temporary'), name)
        end
      end
      return ...
    end
    function main()
      functions_of('_G', _G, {})
      for _, f in ipairs{coroutine.wrap(look), string.gmatch('a', 'a'), io.lines(), pairs(ParamsContainer)} do
        assert(debug.getupvalue(f, 1) == nil and debug.upvalueid(f, 1) == nil)
      end
      local x = 5
      local function own() return x end
      assert(debug.getupvalue(own, 1) == 'x' and debug.upvalueid(own, 1))
      assert(select(2, debug.getlocal(1, 1)) == 5 and debug.getlocal(1, 1) == 'x')
      assert(debug.getlocal(look, 1) == nil and debug.getinfo(1, 'f').func == main)
      local this = coroutine.running()
      assert(debug.getinfo(this, 1, 'f').func == main and debug.getlocal(this, 1, 1) == 'x')
      assert(debug.getinfo(0).name == 'getinfo' and debug.getinfo(-1) == nil)
      assert(debug.getinfo(1, 'l').currentline == 47 and not pcall(debug.getlocal, 5000, 1))
      assert(not debug.getinfo(0x7fffffff) and not pcall(debug.getinfo))

      look()
      assert(pcall(look)) assert(xpcall(look, print)) xpcall(error, look)
      coroutine.wrap(look)() assert(coroutine.resume(coroutine.create(look)))
      assert(load(function() look() end)) load('return ...')(look())
      local text = setmetatable({}, {__tostring = function() return look('t') end,
                                     __index = function() return look(7) end,
                                     __add = look, __close = look, __gc = look})
      print(text) log.print('%s', text)
      load('local x = 1') local y = text.x + text
      table.sort({3, 2, 1}, function(a, b) look() return a < b end)
      string.gsub('abc', '.', look)
      do local closed <close> = text end
      text = nil collectgarbage()
      local waiting = coroutine.create(function() pcall(coroutine.yield) end)
      coroutine.resume(waiting)
      for level = 0, 3 do
        local call = debug.getinfo(waiting, level)
        assert(not call or call.what ~= 'C' or call.func == nil)
        for i = 1, 5 do
          local name = call and debug.getlocal(waiting, level, i)
          assert(not name or not name:find('temporary'), name)
        end
      end
    end)");
  EXPECT_TRUE(end.succeeded) << end.text;
}

TEST_F(LimitsTest, AreNotEscapedByWayOfReplacedFunctions) {
  for (const char* const name : {"os.exit", "load", "getmetatable", "setmetatable", "pcall",
                                 "coroutine.close", "coroutine.wrap", "debug.getinfo"}) {
    const std::string f(name);
    for (const std::string& attempt :
         {"local _, x = debug.getupvalue(" + f + ", 1) x(7)",
          "local ok, _, x = pcall(debug.getupvalue, " + f + ", 1) x(7)",
          "coroutine.wrap(function() local _, x = debug.getupvalue(" + f + ", 1) x(7) end)()"}) {
      const ScriptEnd end = RunMain(attempt);
      EXPECT_EQ(end.code, kMarlinRuntime) << attempt;
      EXPECT_NE(end.text.find("attempt to call a nil value (local 'x')"), std::string::npos)
          << end.text;
    }
  }
}

TEST_F(LimitsTest, LeaveNothingOfTheEngineToBeCalledAgain) {
  // Whatever of the stack can be had, in a run, in its coroutines and its finalizers.
  const std::string attempt =
      "for level = 0, 9 do local call = debug.getinfo(level, 'fS') "
      "if call and call.func and call.what == 'C' then pcall(call.func, io.stdout) "
      "pcall(call.func, 5) pcall(call.func) end end";
  const ScriptEnd end = RunText(
      "local busy = false local function try() if busy then return end busy = true " + attempt +
      " busy = false end try() function main() try() coroutine.wrap(try)() pcall(try) "
      "setmetatable({}, {__gc = try}) collectgarbage() x = setmetatable({}, {__gc = try}) end");
  EXPECT_TRUE(end.succeeded) << end.text;
}

int TakeNothing(lua_State* L) {
  TakeArgument(L);
  return 0;
}

int CallWithoutArgument(lua_State* L) {
  const auto& value = *static_cast<const int*>(TakeArgument(L));
  lua_pushcfunction(L, TakeNothing);
  lua_pushlightuserdata(L, L);
  const int status = lua_pcall(L, 1, 0, 0);
  return luaL_error(L, "%d %d %s", value, status, lua_tostring(L, -1));
}

TEST_F(LimitsTest, GiveTheArgumentOfTheEngineOnlyOnce) {
  MarlinContext context(nullptr);
  int value = 42;
  EXPECT_FALSE(RunInScript(context, CallWithoutArgument, &value));
  EXPECT_TRUE(IsLogged("42 2 this function is not for scripts")) << Log();
}

TEST_F(LimitsTest, CountTheValuesOfContainers) {
  for (const char* const body :
       {"local t = {} for i = 1, 100 do t[i] = i end local c = container.new{l = "
        "t} "
        "for i = 1, 1500 do local d = container.new(c) end",
        "local c = container.new() for i = 0, 999 do c:set_int32('l', i, i) end "
        "for i = 1, 220 do c:get('l', 0) local t = c:to_table() end",
        "local c = container.new() for i = 1, 1000 do c:set_int32('k' .. i, i) end "
        "for i = 1, 220 do c:set_container('n', c) c:remove('n') end"}) {
    EXPECT_EQ(RunMain(body).code, kMarlinInstructions) << body;
  }
}

TEST_F(LimitsTest, RunNothingWhereTheParametersNeedMoreMemory) {
  ZelContainer parameters;
  parameters.SetString("Large", std::string(9 * 1024 * 1024, 'x'), kNoIndex);
  const ZelString path = Write("job.mlx", "print('ran') function main() print('ran') end");
  MarlinContext context(nullptr);
  Prepare(context, parameters);
  const ScriptEnd end = RunFile(context, path);
  EXPECT_EQ(end.code, kMarlinMemory);
  EXPECT_NE(end.text.find("not enough memory (it may have 8 MiB)"), std::string::npos) << end.text;
  EXPECT_FALSE(IsLogged("ran"));
  Stack stack;
  EXPECT_EQ(context.RunProcedure("main", &stack), 0);
  EXPECT_EQ(context.GetContextError(), kMarlinMemory);

  // What the variable stands for is there all the same.
  const auto* const container = static_cast<const ZelContainer*>(
      context.GetVariable("ParamsContainer", kVarListGlobal)->GetHandleValue());
  EXPECT_EQ(*container, parameters);
}

TEST_F(LimitsTest, DoNotCountContainersThatAreGone) {
  EXPECT_TRUE(RunMain("local s = string.rep('x', 1e6) local c = container.new() "
                      "for i = 1, 100 do c:set_string('k', s) container.new({a = s}) end")
                  .succeeded);
  EXPECT_TRUE(RunMain("local s = string.rep('x', 1e6) coroutine.wrap(function() "
                      "for i = 1, 100 do local c = container.new({a = s}) "
                      "setmetatable({}, {__gc = function() return c end}) end end)()")
                  .succeeded);
}

TEST_F(LimitsTest, EndDeepRecursionWithAnError) {
  WriteSettings("");
  const ScriptEnd end = RunText("local function f() return 1 + f() end\nfunction main() f() end");
  EXPECT_EQ(end.code, kMarlinRuntime);
  EXPECT_NE(end.text.find("stack overflow"), std::string::npos) << end.text;
  EXPECT_EQ(RunMain("local function f() return (pcall(f)) end local function g() "
                    "return string.gsub('x', 'x', g) end g()")
                .code,
            kMarlinRuntime);
  // Closing a coroutine that failed runs the script's code again.
  EXPECT_EQ(RunMain("local f\n"
                    "f = function() return coroutine.wrap(function()\n"
                    "  local x <close> = setmetatable({}, {__close = function() f() end})\n"
                    "  error('no luck')\n"
                    "end)() end\n"
                    "f()")
                .code,
            kMarlinRuntime);
}

/// Runs the script again from within an action.
uint32_t RunAgain(const ZelString*, const ZelString&, const ZelString& path,
                  ZelContainer* parameters, void*, uint32_t, uint32_t, bool) {
  MarlinContext context(nullptr);
  ZelString iniDirectory;
  parameters->GetString("IniDirectory", &iniDirectory, kNoIndex);
  context.SetExePath(ZEL_TEST_BIN "/zelagent");
  context.SetIniDir(iniDirectory);
  ZelString module = "zelagent.mlx";
  void* library = nullptr;
  context.LoadFunctionModule(module, "", &library);
  context.SetScriptFile(path, 1);
  Stack stack;
  if (context.CompileScriptFile(path) == 1) context.RunProcedure("main", &stack);
  parameters->SetString("Error", context.GetContextErrorText(), kNoIndex);
  return static_cast<uint32_t>(context.GetContextError());
}

TEST_F(LimitsTest, EndNestedScripts) {
  const std::string directory((directory_ / "").Utf8());
  const ZelString path = directory_ / "job.mlx";
  Write("job.mlx", "function main() local code, result = action.invoke([[" +
                       std::string(path.Utf8()) + "]], {IniDirectory = [[" + directory +
                       "]]}) error(code .. ' ' .. result.Error, 0) end");
  MarlinContext context(nullptr);
  Prepare(context);
  ZelString module = "zelagent.mlx";
  void* library = nullptr;
  ASSERT_TRUE(context.LoadFunctionModule(module, "", &library));
  Find<SetActionInvokeAddressFunction>(library, "SetActionInvokeAddress")(RunAgain);
  const ScriptEnd end = RunFile(context, path);
  EXPECT_EQ(end.text, "5 5 8 a script that runs scripts may do so 3 levels deep");
}

// Interruption.

/// The action "Stop" has another thread interrupt all scripts while the one that called goes on.
class InterruptionTest : public ScriptTest {
 protected:
  ~InterruptionTest() override { AllowScripts(); }

  static uint32_t Stop(const ZelString*, const ZelString&, const ZelString&, ZelContainer*, void*,
                       uint32_t, uint32_t, bool) {
    stopping_ = std::thread(InterruptScripts);
    return 0;
  }

  ScriptEnd RunInterrupted(const std::string& body) const {
    const ZelString path =
        Write("job.mlx", "function main() action.invoke('Stop'); " + body + " end");
    AllowScripts();
    MarlinContext context(nullptr);
    Prepare(context);
    ZelString module = "zelagent.mlx";
    void* library = nullptr;
    context.LoadFunctionModule(module, "", &library);
    Find<SetActionInvokeAddressFunction>(library, "SetActionInvokeAddress")(Stop);
    const ScriptEnd end = RunFile(context, path);
    if (stopping_.joinable()) stopping_.join();
    return end;
  }

 private:
  static inline std::thread stopping_;
};

TEST_F(InterruptionTest, EndsLoopsWhateverCatchesThem) {
  const std::string loop = "function() while true do end end";
  for (const char* const settings : {"", "[limits]\ninstructions = 0\n"}) {
    WriteSettings(settings);
    for (const std::string& body : std::vector<std::string>{
             "(" + loop + ")()", "while true do pcall(" + loop + ") end",
             "while true do xpcall(" + loop + ", " + loop + ") end",
             "while true do coroutine.resume(coroutine.create(" + loop + ")) end",
             "while true do coroutine.wrap(function() end)() end",
             "local x <close> = setmetatable({}, {__close = " + loop + "}) while true do end",
             "setmetatable({}, {__gc = " + loop + "}) collectgarbage() while true do end"}) {
      const ScriptEnd end = RunInterrupted(body + " print('on')");
      EXPECT_EQ(end.code, kMarlinInterrupted) << body << ": " << end.text;
    }
  }
  EXPECT_FALSE(IsLogged(": on"));
  EXPECT_TRUE(IsLogged("MARLIN_ERROR_INTERRUPTED: job.mlx:1: the agent stops")) << Log();
}

TEST_F(InterruptionTest, EndsScriptsThatAreStartedAfterwards) {
  InterruptScripts();
  const ScriptEnd end = RunText("print('chunk') function main() print('main') end");
  EXPECT_EQ(end.code, kMarlinInterrupted);
  EXPECT_EQ(end.text, "job.mlx: the agent stops");
  EXPECT_FALSE(IsLogged("chunk"));
  AllowScripts();
  EXPECT_TRUE(RunMain("").succeeded);
}

TEST_F(InterruptionTest, EndsFinalizersOfAScriptThatIsClosed) {
  const ZelString path = Write("job.mlx",
                               "function main() x = setmetatable({}, {__gc = function() "
                               "print('starts') while true do end end}) end");
  {
    MarlinContext context(nullptr);
    Prepare(context);
    EXPECT_TRUE(RunFile(context, path).succeeded);
    InterruptScripts();
  }
  EXPECT_TRUE(IsLogged("its finalizers were ended: the agent stops")) << Log();
}

// Settings.

class EngineSettingsTest : public ScriptTest {};

TEST_F(EngineSettingsTest, WarnOfValuesThatCannotBeUsed) {
  WriteSettings("[limits]\nmemory_mib = many\ninstructions = -1\ndepth = 0\n");
  EXPECT_TRUE(RunMain("").succeeded);
  const std::string file((directory_ / "marlin.ini").Utf8());
  EXPECT_TRUE(IsLogged("warning [libZel] " + file +
                       ": [limits] memory_mib = \"many\" is not a "
                       "number from 1 to 1048576, so it is 256"))
      << Log();
  EXPECT_TRUE(IsLogged("[limits] instructions = \"-1\""));
  EXPECT_TRUE(IsLogged("[limits] depth = \"0\""));
}

TEST_F(EngineSettingsTest, AreReadFromTheFileThatIsNamed) {
  Write("other.ini", "[limits]\ninstructions = 1000\n");
  const ZelString path = Write("job.mlx", "function main() while true do end end");
  MarlinContext context(nullptr);
  context.SetExePath(ZEL_TEST_BIN "/zelagent");
  context.SetIniDir(directory_ / "");
  EXPECT_TRUE(context.GetIniPath().IsEmpty());
  ZelString module = "zelagent.mlx";
  void* library = nullptr;
  ASSERT_TRUE(context.LoadFunctionModule(module, "other.ini", &library));
  EXPECT_EQ(context.GetIniPath(), directory_ / "other.ini");
  EXPECT_EQ(RunFile(context, path).code, kMarlinInstructions);
}

// Function modules.

TEST_F(MarlinContextTest, LoadsNoModuleThatIsMissing) {
  MarlinContext context(nullptr);
  context.SetExePath(directory_ / "zelagent");
  context.SetIniDir(directory_ / "");
  ZelString module = "zelagent.mlx";
  int unchanged = 0;
  void* library = &unchanged;
  EXPECT_FALSE(context.LoadFunctionModule(module, "", &library));
  EXPECT_EQ(library, &unchanged);
  EXPECT_EQ(context.GetIniPath(), directory_ / "marlin.ini");
  EXPECT_TRUE(IsLogged("zelagent.mlx cannot be loaded: "));
  // Neither one that is no library, and the failure is not remembered.
  Write("zelagent.mlx", "no library");
  EXPECT_FALSE(context.LoadFunctionModule(module, "", &library));
}

TEST_F(MarlinContextTest, LoadsAModuleThatAddsNothing) {
  MarlinContext context(nullptr);
  context.SetExePath(ZEL_TEST_BIN "/zelagent");
  ZelString module = "empty.mlx";
  void* library = nullptr;
  EXPECT_TRUE(context.LoadFunctionModule(module, "", &library));
  ASSERT_NE(library, nullptr);
  EXPECT_EQ(GetProcAddress(static_cast<HMODULE>(library), "AddContainerVariable"), nullptr);
  void* again = nullptr;
  EXPECT_TRUE(context.LoadFunctionModule(module, "", &again));
  EXPECT_EQ(again, library);
}

// Variables.

TEST_F(MarlinContextTest, KeepsVariables) {
  const ZelString path = Write("job.mlx",
                               "function main() assert(Number == 7) "
                               "assert(type(Thing) == 'userdata') end");
  MarlinContext context(nullptr);
  int thing = 0;
  auto* const handle = new VarHandle("Handle", "Thing", 0);
  handle->SetHandleValue(&thing);
  context.AddVariable(handle, kVarListGlobal);
  auto* const number = new VarHandle("Integer", "", 0);
  number->SetVarName("Number");
  number->SetIntegerValue(7);
  context.AddVariable(number, kVarListGlobal);
  context.AddVariable(new Variable("Plain"), kVarListGlobal);
  context.AddVariable(nullptr, kVarListGlobal);

  EXPECT_EQ(context.GetVariable("Thing", kVarListGlobal), handle);
  EXPECT_EQ(context.GetVariable("Number", kVarListGlobal), number);
  EXPECT_EQ(context.GetVariable("Plain", kVarListGlobal), nullptr);
  EXPECT_EQ(context.GetVariable("None", kVarListGlobal), nullptr);
  EXPECT_TRUE(RunFile(context, path).succeeded);
}

// Libraries of scripts.

TEST_F(MarlinContextTest, LoadsTextsOnly) {
  Write("code.lua", "\x1BLua");
  Write("part.lua", "return 5");
  Write("env.lua", "return x");
  const ScriptEnd end = RunMain(
      "local code = string.dump(function() end) "
      "for _, mode in ipairs{'b', 't', 'bt'} do assert(not load(code, 'x', mode)) end "
      "assert(not load(code)) assert(not load('return 1', 'x', 'b')) "
      "assert(load('return 1')() == 1) assert(load('return x', 'n', 't', {x = 2})() == 2) "
      "assert(load('return x', 'n', nil, nil)) "
      "local path = package.path:match('^(.-)%?') "
      "assert(select(2, loadfile(path .. 'code.lua')):find('compiled code')) "
      "assert(not pcall(dofile, path .. 'code.lua')) assert(not pcall(require, 'code')) "
      "assert(loadfile(path .. 'part.lua')() == 5) assert(dofile(path .. 'part.lua') == 5) "
      "assert(loadfile(path .. 'env.lua', 't', {x = 6})() == 6) assert(require('part') == 5) "
      "assert(not loadfile(path .. 'none.lua')) assert(not pcall(require, 'none'))");
  EXPECT_TRUE(end.succeeded) << end.text;
}

TEST_F(MarlinContextTest, LoadsNoMachineCode) {
  const ScriptEnd end = RunMain(
      "assert(package.cpath == '' and package.loadlib == nil) "
      "assert(#package.searchers == 2) "
      "package.cpath = './?.so' local ok, why = pcall(require, 'lib.x') "
      "assert(not ok and why:find(\"no file '\", 1, true), why) "
      "assert(not why:find('.so', 1, true), why)");
  EXPECT_TRUE(end.succeeded) << end.text;
}

TEST_F(MarlinContextTest, LeavesTheLocaleOfTheProcessAlone) {
  const ScriptEnd end = RunMain(
      "assert(os.setlocale() == 'C') assert(os.setlocale('') == nil) "
      "assert(os.setlocale(nil, 'time') == 'C') "
      "assert(os.setlocale('C') == nil)");
  EXPECT_TRUE(end.succeeded) << end.text;
}

TEST_F(MarlinContextTest, HasCoroutinesAndCatchersAsLuaDoes) {
  const ScriptEnd end = RunText(R"(
    function main()
      local co = coroutine.create(function(a, b)
        local c = coroutine.yield(a + b)
        local ok, e = pcall(function() coroutine.yield(c); error('inner', 0) end)
        assert(not ok and e == 'inner')
        error({code = 1})
      end)
      local ok, v = coroutine.resume(co, 1, 2) assert(ok and v == 3)
      ok, v = coroutine.resume(co, 'c') assert(ok and v == 'c')
      ok, v = coroutine.resume(co) assert(not ok and v.code == 1)
      assert(not coroutine.resume(co) and coroutine.status(co) == 'dead')
      local next = coroutine.wrap(function() for i = 1, 3 do coroutine.yield(i) end end)
      assert(next() == 1 and next() == 2)
      local w = coroutine.wrap(function() error('bad', 0) end)
      ok, v = pcall(w) assert(not ok and v:find('bad$'), v)
      local closed = false
      w = coroutine.wrap(function()
        local x <close> = setmetatable({}, {__close = function() closed = true end}) error('bad', 0)
      end)
      assert(not pcall(w) and closed)
      assert(select('#', pcall(function() return 1, nil, nil end)) == 4)
      ok, v = xpcall(function(a) error(a, 0) end, function(e) return e .. '!' end, 'x')
      assert(not ok and v == 'x!')
      assert(select(2, xpcall(function(...) return select('#', ...) end, print, 1, 2)) == 2)
      assert(coroutine.close(coroutine.create(print)))
      assert(not pcall(coroutine.create, 1) and not pcall(coroutine.resume, 1))
      assert(not pcall(xpcall, print) and not pcall(pcall))
      warn('look', ' out')
    end)");
  EXPECT_TRUE(end.succeeded) << end.text;
  EXPECT_TRUE(IsLogged("warning [libZel] job.mlx: look out"));
}

TEST_F(MarlinContextTest, FinalizesTablesAsLuaDoes) {
  const ScriptEnd end = RunText(R"(
    function main()
      local seen = {}
      local mt = {__gc = function(t) seen[#seen + 1] = t.name end, __index = {kind = 'k'}}
      do local a, b = setmetatable({name = 'a'}, mt), setmetatable({name = 'b'}, mt)
        assert(getmetatable(a) == mt and mt.__gc and a.kind == 'k') end
      collectgarbage() collectgarbage()
      assert(table.concat(seen) == 'ba', table.concat(seen))
      assert(not pcall(setmetatable, setmetatable({}, {__metatable = 1}), {}))
      assert(not pcall(setmetatable, 1, {}) and not pcall(setmetatable, {}))
      assert(getmetatable(setmetatable({}, nil)) == nil)
      setmetatable({}, {__gc = function() error('in finalizer') end})
      collectgarbage()
      Last = setmetatable({}, {__gc = function() print('at the end', session.connected()) end})
    end)");
  EXPECT_TRUE(end.succeeded) << end.text;
  EXPECT_TRUE(IsLogged("an error in a finalizer: job.mlx:")) << Log();
  EXPECT_TRUE(IsLogged("at the end\\x09false"));
}

TEST_F(MarlinContextTest, RunsInManyThreadsAtOnce) {
  Write("helper.lua", "return {twice = function(x) return 2 * x end}");
  const ZelString path = Write("job.mlx", R"(
    local helper = require 'helper'
    function main()
      local sum = 0
      for i = 1, 2000 do sum = sum + helper.twice(i) end
      for i = 1, 20 do
        local code, result = action.invoke('Do', {Sum = sum, Text = ParamsContainer:get('Text')})
        assert(code == 0 and result.Answer == 42)
      end
      log.print('sum %d', sum)
    end)");
  std::vector<std::thread> threads;
  std::vector<int> successes(8);
  for (int& success : successes) {
    threads.emplace_back([&] {
      ZelContainer parameters;
      parameters.SetString("Text", "hello", kNoIndex);
      for (int i = 0; i < 5; ++i) {
        MarlinContext context(nullptr);
        Prepare(context, parameters);
        success += RunFile(context, path).succeeded ? 1 : 0;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(successes, std::vector<int>(8, 5));
  EXPECT_EQ(FakeActions::Take().size(), 8U * 5 * 20);
}

TEST(PathParser, TellsThePartsOfAPath) {
  PathParser parser;
  parser.LoadPath("C:\\jobs\\daily.mlx");
  EXPECT_EQ(parser.GetDrive(), ZelString("C:"));
  EXPECT_EQ(parser.GetDir(), ZelString("\\jobs\\"));
  EXPECT_EQ(parser.GetFileName(), ZelString("daily.mlx"));
  EXPECT_EQ(parser.GetFileNameWithoutExt(), ZelString("daily"));
}

}  // namespace
