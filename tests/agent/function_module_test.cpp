#include <string>

#include "agent/libZel/debug_context.h"
#include "tests/agent/script_test.h"

namespace {

class FunctionModuleTest : public ScriptTest {
 protected:
  void ExpectSuccess(const std::string& body, const ZelContainer& parameters = {}) const {
    const ScriptEnd end = RunText("function main()\n" + body + "\nend", parameters);
    EXPECT_TRUE(end.succeeded) << end.text;
  }
  /// Each statement must raise an error that holds the text.
  void ExpectError(const std::string& statement, const std::string& text) const {
    const ScriptEnd end = RunMain("local c = container.new() " + statement);
    EXPECT_EQ(end.code, kMarlinRuntime) << statement;
    EXPECT_NE(end.text.find(text), std::string::npos) << statement << ": " << end.text;
  }
};

ZelContainer SomeOfEach() {
  ZelContainer nested;
  nested.SetBool("Deep", true, kNoIndex);
  ZelContainer container;
  container.SetString("Text", "caf\xC3\xA9", kNoIndex);
  container.SetInt32("Small", -5, kNoIndex);
  container.SetInt64("Large", 1LL << 40, kNoIndex);
  container.SetBool("Flag", false, kNoIndex);
  container.SetContainer("Nested", nested, kNoIndex);
  container.SetString("List", "a", 0);
  container.SetString("List", "b", 1);
  container.SetContainer("Rows", nested, 0);
  return container;
}

TEST_F(FunctionModuleTest, GivesTheParametersToTheScript) {
  ExpectSuccess(R"(
    local p = ParamsContainer
    assert(p:get('Text') == 'café' and p:get_string('Text') == 'café')
    assert(p:get('Small') == -5 and p:get_int32('Small') == -5 and p:get_int64('Small') == -5)
    assert(p:get('Large') == 1 << 40 and p:get_int32('Large') == nil)
    assert(p:get('Flag') == false and p:get_bool('Flag') == false)
    assert(p:get('Nested'):get('Deep') and p:get_container('Nested'):get_bool('Deep'))
    assert(p:get('List') == nil and p:get('List', 0) == 'a' and p:get('List', 1) == 'b')
    assert(p:get('List', 2) == nil and p:get('None') == nil and p:get_string('Small') == nil)
    assert(p:count('List') == 2 and p:count('Text') == 1 and p:count('None') == 0)
    assert(#p == 7 and tostring(p) == 'container of 7 keys')
    assert(p:type('Text') == 'string' and p:type('Small') == 'int32' and p:type('Flag') == 'bool')
    assert(p:type('Large') == 'int64' and p:type('Nested') == 'container' and not p:type('None'))
    assert(select(2, p:type('List')) == true and select(2, p:type('Text')) == false)
    assert(table.concat(p:keys(), ' ') == 'Text Small Large Flag Nested List Rows')
  )",
                SomeOfEach());
}

TEST_F(FunctionModuleTest, TurnsContainersIntoTables) {
  ExpectSuccess(R"(
    local t = ParamsContainer:to_table()
    assert(t.Text == 'café' and t.Small == -5 and t.Large == 1 << 40 and t.Flag == false)
    assert(t.Nested.Deep == true and #t.List == 2 and t.List[1] == 'a' and t.Rows[1].Deep == true)
  )",
                SomeOfEach());
}

TEST_F(FunctionModuleTest, WalksThroughContainersThatChange) {
  ExpectSuccess(R"(
    for _, walk in ipairs{pairs, function(c) return c:pairs() end} do
      local c, seen = container.new{a = 1, b = {1, 2}, c = {x = 'y'}}, {}
      for key, value in walk(c) do
        seen[#seen + 1] = key
        c:remove(key) c:set('new' .. key, 1)
        if key == 'b' then assert(value[2] == 2) end
        if key == 'c' then assert(value:get('x') == 'y') end
      end
      assert(table.concat(seen) == 'abc' and #c == 3)
    end)");
}

TEST_F(FunctionModuleTest, WritesValuesByType) {
  ExpectSuccess(R"(
    local c = container.new()
    c:set('text', 'x') c:set('flag', true) c:set('small', 7) c:set('large', 1 << 33)
    c:set('whole', 3.0) c:set('nested', {a = {b = 'c'}}) c:set('empty', {})
    c:set('list', {10, 20}) c:set('wide', {1, 1 << 40}) c:set('rows', {{a = 1}, {a = 2}})
    c:set('copy', c)
    assert(c:type('text') == 'string' and c:type('small') == 'int32' and c:type('whole') == 'int32')
    assert(c:type('large') == 'int64' and c:type('wide') == 'int64' and c:get('wide', 0) == 1)
    assert(c:get('nested'):get('a'):get('b') == 'c' and #c:get('empty') == 0)
    assert(c:count('rows') == 2 and c:get('rows', 1):get('a') == 2)
    c:set('list', 30, 2) c:set('list', 11, 0) assert(c:count('list') == 3 and c:get('list', 0) == 11)
    c:set('wide', 5, 2) assert(c:get('wide', 2) == 5)
    c:set('list', 'single') assert(c:get('list') == 'single')
    c:set_string('s', 'a') c:set_int32('i', -1) c:set_int64('l', 1) c:set_bool('b', false)
    c:set_container('c', {x = 1}) c:set_container('o', container.new{y = 2}) c:set_string('l0', 'q', 0)
    assert(c:type('l') == 'int64' and c:get('c'):get('x') == 1 and c:get('o'):get('y') == 2)
    assert(c:remove('s') and not c:remove('s')) c:clear() assert(#c == 0))");
}

TEST_F(FunctionModuleTest, ComparesByContent) {
  ExpectSuccess(R"(
    local a, b = container.new{x = {1, 2}}, container.new{x = {1, 2}}
    assert(a == b and a ~= {} and a ~= container.new{x = {1}})
    local copy = container.new(a) copy:set('y', 1) assert(copy ~= a))");
}

TEST_F(FunctionModuleTest, KeepsBytesThatAreNoText) {
  ExpectSuccess(R"(
    local c, bytes = container.new(), {}
    for i = 0, 255 do bytes[#bytes + 1] = string.char(i) end
    c:set('k', table.concat(bytes)) assert(c:get('k') == table.concat(bytes))
    c:set('\xFF', 1) assert(c:keys()[1] == 'k' and c:keys()[2] == '\xFF' and c:get('\xFF') == 1))");
}

TEST_F(FunctionModuleTest, RefusesValuesThatNoContainerHolds) {
  ExpectError("c:set('k', 1.5)", "bad argument #2 to 'set' (the value of 'k' is a number with a");
  ExpectError("c:set('k', print)", "the value of 'k' is a function");
  ExpectError("c:set('k', nil)", "the value of 'k' is a nil");
  ExpectError("c:set('k')", "bad argument #2 to 'set' (value expected)");
  ExpectError("c:set('k', 2^63)", "the value of 'k' is a number with a fraction, or beyond");
  ExpectError("c:set('k', {a = {1, 'x'}})", "'k.a' is a list of values of several types");
  ExpectError("c:set('k', {1, {2}})", "'k' is a list of values of several types");
  ExpectError("c:set('k', {{1}})", "'k[1]' is a list within a list");
  ExpectError("c:set('k', {1, x = 2})", "'k' is a list that has other keys too");
  ExpectError("c:set('k', {[5] = 2})", "'k' has a key that is a number");
  ExpectError("c:set('k', {1, [5] = 2})", "'k' is a list with gaps");
  ExpectError("c:set('k', {1, 2.5})", "'k[2]' is a number with a fraction");
  ExpectError("local t = {} t.t = {t} c:set('k', t)", "'k.t[1]' is a table that holds itself");
  ExpectError("local t = {} for i = 1, 100 do t = {t = t} end c:set('k', t)", "is nested too deep");
  ExpectError("container.new{1, 2}",
              "bad argument #1 to 'new' (the table has a key that is a number");
  ExpectError("container.new{a = {b = print}}", "(the value of 'a.b' is a function)");
}

TEST_F(FunctionModuleTest, NestsTablesAndContainersUpTo32Levels) {
  // Each step wraps the value once; what has 31 levels fits into a container once more.
  for (const char* const step :
       {"v = {k = v}", "v = container.new{k = v}", "local c = container.new() c:set('k', v) v = c",
        "local c = container.new() c:set_container('k', v) v = c",
        "v = i % 2 == 0 and {k = v} or container.new{k = v}"}) {
    const std::string nest =
        std::string("local v = container.new() for i = 1, 30 do ") + step + " end ";
    ExpectSuccess(nest + R"(
      local c = container.new()
      c:set('k', v) c:set_container('k', v)
      assert(not pcall(c.set, c, 'l', {v}) and not pcall(c.set, c, 'l', v, 0))
      assert(not pcall(c.set_container, c, 'l', v, 0) and #c == 1)
      assert(action.invoke('Do', {k = v}) == 0 and action.invoke('Do', v) == 0))");
    for (const char* const write :
         {"c:set('key', {a = v})", "c:set('key', container.new{a = v})", "c:set('list', v, 0)",
          "c:set_container('key', {a = v})", "c:set_container('list', v, 0)",
          "container.new{a = {b = v}}", "action.invoke('Do', {a = {b = v}})",
          "local d = container.new{a = v} c:set('key', d)",
          "local d = container.new{a = v} c:set_container('key', d)",
          "local d = container.new{a = v} container.new{key = d}",
          "local d = container.new{a = v} action.invoke('Do', {key = d})",
          "local d = container.new{a = v} coroutine.wrap(function() c:set('key', d) end)()"}) {
      const ScriptEnd end = RunMain(nest + "local c = container.new() " + write);
      EXPECT_EQ(end.code, kMarlinRuntime) << step << ": " << write;
      EXPECT_TRUE(end.text.find("(the value of '") != std::string::npos &&
                  end.text.find("is nested too deep)") != std::string::npos)
          << end.text;
    }
  }
  ExpectError("local v = {} for i = 1, 31 do v = {k = v} end c:set('key', v)",
              "the value of 'key.k.k.k");
  ExpectError(
      "local v = container.new() for i = 1, 30 do v = container.new{k = v} end "
      "c:set('key', {a = v})",
      "the value of 'key.a' is nested too deep");
}

TEST_F(FunctionModuleTest, WrapsContainersWithoutEndOnlyAsDeepAsAllowed) {
  ExpectSuccess(R"(
    for _, wrap in ipairs{function(v) return container.new{k = v} end,
                          function(v) return container.new{k = {k = {k = v}}} end,
                          function(v) local c = container.new() c:set('k', {k = {v}}) return c end,
                          function(v) local c = container.new() c:set_container('k', v) return c end} do
      local v, steps = container.new(), 0
      while steps < 200000 do
        local ok, wrapped = pcall(wrap, v)
        if not ok then break end
        v, steps = wrapped, steps + 1
      end
      assert(steps <= 31 and v == container.new(v) and v:to_table())
    end)");
}

TEST_F(FunctionModuleTest, LeavesNoContainerToFinalizersThatRunLater) {
  // Objects that were made later are finalized earlier.
  ExpectSuccess(R"(
    Last = setmetatable({}, {__gc = function()
      print('the end', pcall(Get, C, 'k'), C == C, pcall(tostring, C))
      local made = container.new{k = 1} print('made', made:get('k'))
    end})
    C = container.new{k = 'value'} Get = C.get)");
  EXPECT_TRUE(IsLogged("made\\x091")) << Log();
  EXPECT_TRUE(IsLogged("the end\\x09false")) << Log();
}

TEST_F(FunctionModuleTest, WorksOnTheContainerThatTheVariableStandsFor) {
  const ZelString path = Write("job.mlx", "function main() ParamsContainer:set('Answer', 42) end");
  MarlinContext context(nullptr);
  Prepare(context, SomeOfEach());
  EXPECT_TRUE(RunFile(context, path).succeeded);
  const auto* const container = static_cast<const ZelContainer*>(
      context.GetVariable("ParamsContainer", kVarListGlobal)->GetHandleValue());
  ZelContainer expected = SomeOfEach();
  expected.SetInt32("Answer", 42, kNoIndex);
  EXPECT_EQ(*container, expected);
}

TEST_F(FunctionModuleTest, ChangesNothingWhereAValueIsRefused) {
  ExpectSuccess(R"(
    local c = container.new{list = {1, 2}}
    assert(not pcall(c.set, c, 'list', {3, print}) and c:get('list', 0) == 1)
    assert(not pcall(c.set, c, 'list', 'text', 0) and not pcall(c.set, c, 'list', 9, 5))
    assert(not pcall(c.set_string, c, 'other', 'x', 1) and #c == 1))");
}

TEST_F(FunctionModuleTest, RefusesWrongArgumentsOfContainers) {
  for (const char* const name : {"get", "get_string", "get_int32", "get_int64", "get_bool",
                                 "get_container", "set", "set_string", "set_int32", "set_int64",
                                 "set_bool", "set_container", "count", "remove", "type"}) {
    ExpectError(std::string("c.") + name + "(5, 'k', 1)", "bad argument #1 to '");
    ExpectError(std::string("c:") + name + "(5, 1)", "(string expected, got number)");
    ExpectError(std::string("c:") + name + "()", "(string expected, got no value)");
  }
  for (const char* const name : {"clear", "keys", "to_table", "pairs"}) {
    ExpectError(std::string("c.") + name + "({})", "(container expected, got table)");
  }
  for (const char* const index : {"-1", "4294967295", "'x'", "1.5", "{}"}) {
    ExpectError(std::string("c:get('k', ") + index + ")", "bad argument #2 to 'get'");
    ExpectError(std::string("c:set('k', 1, ") + index + ")", "bad argument #3 to 'set'");
  }
  ExpectError("c:set_string('k', {})", "bad argument #2 to 'set_string' (string expected");
  ExpectError("c:set_int32('k', 1 << 31)", "the number does not fit in 32 bits");
  ExpectError("c:set_int32('k', 'x')", "bad argument #2 to 'set_int32' (number expected");
  ExpectError("c:set_int64('k', 1.5)", "number has no integer representation");
  ExpectError("c:set_bool('k', 1)", "bad argument #2 to 'set_bool' (boolean expected");
  ExpectError("c:set_container('k', 1)", "(table or container expected, got number)");
  ExpectError("container.new(1)", "bad argument #1 to 'new' (table or container expected");
  ExpectError("c:set_string('k', 'x', 3)", "the list 'k' has values of another type, or ends");
}

TEST_F(FunctionModuleTest, InvokesActions) {
  ExpectSuccess(R"(
    local code, result = action.invoke('Do', {Path = 'x', Count = 3})
    assert(code == 0 and result.Answer == 42 and result.Path == 'x')
    code = action.invoke('Fail') assert(code == 7)
    local c = container.new{A = 1}
    code, result = action.invoke('Do', c, 'https://host:1')
    assert(#c == 1 and result.A == 1)
    action.invoke('Do', nil, {id = 'agent7', address = 'https://host:2'}))");
  const std::vector<Invocation> calls = FakeActions::Take();
  ASSERT_EQ(calls.size(), 4U);
  ZelContainer expected;
  expected.SetInt32("Count", 3, kNoIndex);
  expected.SetString("Path", "x", kNoIndex);
  EXPECT_EQ(calls[0].action, "Do");
  EXPECT_EQ(calls[0].parameters, expected);
  EXPECT_EQ(calls[0].address, "");
  EXPECT_EQ(calls[1].parameters.CountKeys(), 0U);
  EXPECT_EQ(calls[2].address, "https://host:1");
  EXPECT_EQ(calls[3].agent, "agent7");
  EXPECT_EQ(calls[3].address, "https://host:2");
}

TEST_F(FunctionModuleTest, RefusesWrongArgumentsOfInvoke) {
  ExpectError("action.invoke()", "bad argument #1 to 'invoke' (string expected, got no value)");
  ExpectError("action.invoke('A', 5)", "bad argument #2 to 'invoke' (table or container expected");
  ExpectError("action.invoke('A', {k = print})", "bad argument #2 to 'invoke' (the value of 'k'");
  ExpectError("action.invoke('A', {}, 5)", "bad argument #3 to 'invoke' (string or table expected");
  ExpectError("action.invoke('A', {}, {})", "the table has neither 'id' nor 'address'");
  ExpectError("action.invoke('A', {}, {id = 5})", "'id' is a number");
  EXPECT_TRUE(FakeActions::Take().empty());
}

TEST_F(FunctionModuleTest, WritesTheLog) {
  ExpectSuccess(R"(log.error('e %d', 1) log.warning('w %s', 'x%S%n') log.print('p')
                   log.trace('t %5.1f', 2.25) log.detail('100%%') log.audit('bob', 'here', '%s'))");
  for (const char* const line :
       {"error [libZel] job.mlx: e 1", "warning [libZel] job.mlx: w x%S%n",
        "print [libZel] job.mlx: p", "trace [libZel] job.mlx: t   2.2",
        "detail [libZel] job.mlx: 100%", "audit: user \"bob\", address \"here\": job.mlx: %s"}) {
    EXPECT_TRUE(IsLogged(line)) << line << "\n" << Log();
  }
}

TEST_F(FunctionModuleTest, RefusesWrongArgumentsOfTheLog) {
  for (const char* const name : {"error", "warning", "print", "trace", "detail"}) {
    ExpectError(std::string("log.") + name + "()", "bad argument #1 to '" + std::string(name));
    ExpectError(std::string("log.") + name + "('%d', 'x')", "number expected, got string");
    ExpectError(std::string("log.") + name + "('100%')",
                "job.mlx:1: bad argument #2 to 'string.format' (no value)");
  }
  ExpectError("log.audit('a', 'b')", "bad argument #3 to 'audit' (string expected");
  ExpectError("log.audit('a', 1, 'c')", "bad argument #2 to 'audit'");
  ExpectError("log.audit()", "bad argument #1 to 'audit'");
}

TEST_F(FunctionModuleTest, HasNoSessionWithoutAProxy) {
  ExpectSuccess(R"(
    assert(session.connected() == false)
    local info, why = session.info() assert(info == nil and why == 'there is no user session')
    local ran, reason = session.run('x') assert(ran == nil and reason == why))");
  ExpectError("session.run()", "bad argument #1 to 'run' (string expected, got no value)");
  ExpectError("session.run({})", "bad argument #1 to 'run' (string expected, got table)");
}

TEST_F(FunctionModuleTest, HasNoSessionWithAProxyThatIsNotConnected) {
  XmlProxyClient proxy;
  const ZelString path = Write("job.mlx", "function main() assert(not session.connected()) end");
  MarlinContext context(&proxy);
  Prepare(context);
  EXPECT_EQ(context.GetXmlProxyClient(), &proxy);
  EXPECT_TRUE(RunFile(context, path).succeeded);
}

TEST_F(FunctionModuleTest, KeepsTheParametersAlthoughTheVariableIsGone) {
  ExpectSuccess("ParamsContainer = nil collectgarbage() collectgarbage()", SomeOfEach());
}

TEST_F(FunctionModuleTest, TakesAContainerThatNoVariableStandsFor) {
  MarlinContext context(nullptr);
  context.SetExePath(ZEL_TEST_BIN "/zelagent");
  ZelString module = "zelagent.mlx";
  void* library = nullptr;
  ASSERT_TRUE(context.LoadFunctionModule(module, "", &library));
  Find<AddContainerVariableFunction>(library, "AddContainerVariable")(
      &context, new ZelContainer(SomeOfEach()));
  EXPECT_TRUE(RunFile(context, Write("job.mlx", "function main() assert(not ParamsContainer) end"))
                  .succeeded);
}

}  // namespace
