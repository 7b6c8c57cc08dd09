#include "agent/libZelMarlin/interpreter.h"

#include <lauxlib.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "agent/libZel/debug_context.h"
#include "agent/libZelMarlin/interruption.h"
#include "agent/libZelMarlin/library_changes.h"
#include "agent/libZelMarlin/script_libraries.h"
#include "agent/libZelMarlin/script_state.h"
#include "libZel/path.h"

namespace {

/// How many instructions pass between two looks at the limit, in each coroutine.
constexpr int kCountInterval = 1000;
/// What is kept of a message, a warning or a list of calls.
constexpr size_t kMostTextBytes = 8192;
/// How many calls are looked at for the line in the script.
constexpr int kMostLevels = 1000;
constexpr const char* kMemoryMessage = "not enough memory";
constexpr const char* kInterruptedMessage = "the agent stops";

/// The registry's key of the compiled script.
const char kCompiledScript = 0;

std::string Bounded(std::string text) {
  if (text.size() <= kMostTextBytes) return text;
  text.resize(kMostTextBytes);
  return text + "...";
}

/// "job.mlx:3: " for where the innermost call of a script is; empty when there is none.
std::string PositionOf(lua_State* L) {
  lua_Debug call{};
  for (int level = 0; level < kMostLevels && lua_getstack(L, level, &call) != 0; ++level) {
    lua_getinfo(L, "Sl", &call);
    if (call.currentline <= 0) continue;
    return std::string(call.short_src) + ":" + std::to_string(call.currentline) + ": ";
  }
  return {};
}

/// The text of an error object; calls its __tostring.
std::string ErrorText(lua_State* L, int index) {
  const bool isText = lua_type(L, index) == LUA_TSTRING || lua_type(L, index) == LUA_TNUMBER;
  if (!isText && luaL_getmetafield(L, index, "__tostring") == LUA_TNIL) {
    return std::string("(the error object is a ") + luaL_typename(L, index) + " value)";
  }
  luaL_tolstring(L, index, nullptr);
  return std::string(BytesAt(L, -1));
}

struct HandleArguments {
  const ZelString* name;
  void* value;
  int32_t number;
};

struct RunArguments {
  const ZelString* procedure;
  bool isCompiled = true;
  bool isMissing = false;
};

struct CompileArguments {
  const std::string* text;
  const std::string* chunkName;
  bool isRefused = false;
  std::string message;
};

int OpenLibraries(lua_State* L) {
  OpenScriptLibraries(L);
  return 0;
}

int PublishDirectory(lua_State* L) {
  SetScriptDirectory(L, *static_cast<const std::string*>(TakeArgument(L)));
  return 0;
}

}  // namespace

std::unique_ptr<Interpreter> Interpreter::Make(MarlinContext& context,
                                               const EngineSettings& settings) {
  std::unique_ptr<Interpreter> made(new (std::nothrow) Interpreter(context, settings));
  if (made == nullptr || !made->Open()) return nullptr;
  return made;
}

Interpreter::Interpreter(MarlinContext& context, const EngineSettings& settings)
    : context_(context), settings_(settings) {}

Interpreter::~Interpreter() {
  if (state_ == nullptr) return;
  // A script that has ended itself may still tidy up; one that was ended may not.
  if (end_ == End::kExit || end_ == End::kExitWithFailure) end_ = End::kNone;
  const bool wasEnded = IsEnding();
  isClosing_ = true;
  lua_close(state_);
  if (!wasEnded && (end_ == End::kInstructions || end_ == End::kInterruption)) {
    LibraryLog().WarningWithNL(
        "%s: its finalizers were ended: %s", scriptName_.c_str(),
        end_ == End::kInstructions ? "too many instructions" : kInterruptedMessage);
  }
}

bool Interpreter::Open() {
  state_ = lua_newstate(Allocate, this);
  if (state_ == nullptr) return false;
  *static_cast<Interpreter**>(lua_getextraspace(state_)) = this;
  lua_setwarnf(state_, Warn, this);
  return RunLimited(ForScript<OpenLibraries>, nullptr).error == kMarlinOk;
}

void* Interpreter::Allocate(void* self, void* block, size_t oldSize, size_t newSize) {
  auto& interpreter = *static_cast<Interpreter*>(self);
  // Of a new block the "old size" is the kind of object.
  const size_t had = block != nullptr ? oldSize : 0;
  if (newSize == 0) {
    std::free(block);
    interpreter.usedBytes_ -= had;
    return nullptr;
  }

  const bool fits = newSize <= had ||
                    interpreter.usedBytes_ + (newSize - had) <= interpreter.settings_.memoryBytes;
  void* const moved = fits ? std::realloc(block, newSize) : nullptr;
  if (moved == nullptr) {
    interpreter.memoryRefused_ = true;
    return nullptr;
  }
  interpreter.usedBytes_ = interpreter.usedBytes_ - had + newSize;
  return moved;
}

bool Interpreter::AddMemory(lua_State* L, size_t bytes) {
  const auto fits = [&] { return usedBytes_ + bytes <= settings_.memoryBytes; };
  // What holds this memory may be garbage by now.
  if (!fits()) lua_gc(L, LUA_GCCOLLECT);
  if (!fits()) return false;
  usedBytes_ += bytes;
  return true;
}

void Interpreter::Warn(void* self, const char* text, int toBeContinued) {
  auto& interpreter = *static_cast<Interpreter*>(self);
  try {
    std::string& warning = interpreter.warning_;
    if (warning.size() < kMostTextBytes) warning = Bounded(warning + text);
    if (toBeContinued != 0) return;
    // "@on" and the like are orders to Lua's own program.
    if (!warning.starts_with('@')) {
      LibraryLog().WarningWithNL("%s: %S", interpreter.scriptName_.c_str(), ZelString(warning));
    }
    warning.clear();
  } catch (const std::exception&) {
    // Without memory there is no log line either.
  }
}

void Interpreter::CountHook(lua_State* L, lua_Debug*) {
  Of(L).Count(L, static_cast<uint64_t>(lua_gethookcount(L)));
}

void Interpreter::Count(lua_State* L, uint64_t instructions) {
  if (IsEnding()) GoOnEnding(L);
  if (ScriptsAreInterrupted()) EndScript(L, End::kInterruption, kInterruptedMessage);
  instructions_ += instructions;
  if (settings_.instructions == 0 || instructions_ <= settings_.instructions) return;
  EndScript(L, End::kInstructions,
            "the script has run for more than " + std::to_string(settings_.instructions) +
                " instructions");
}

void Interpreter::CountCoroutine(lua_State* L) {
  Count(L, kCountInterval);
}

void Interpreter::EndScript(lua_State* L, End end, const std::string& reason) {
  pending_.line = LineInScript(L);
  endReason_ = PositionOf(L) + reason;
  end_ = end;
  GoOnEnding(L);
}

void Interpreter::StopSoon(lua_State* L) {
  lua_sethook(L, CountHook, LUA_MASKCOUNT, 1);
}

void Interpreter::GoOnEnding(lua_State* L) {
  StopSoon(L);
  lua_pushlstring(L, endReason_.data(), endReason_.size());
  lua_error(L);
  std::abort();  // lua_error does not return, which its declaration does not tell
}

int Interpreter::LineInScript(lua_State* L) const {
  lua_Debug call{};
  for (int level = 0; level < kMostLevels && lua_getstack(L, level, &call) != 0; ++level) {
    lua_getinfo(L, "Sl", &call);
    if (call.currentline > 0 && chunkName_ == call.source) return call.currentline;
  }
  return 0;
}

int Interpreter::LineInMessage(const std::string& text) const {
  // Long names are shortened like this in messages.
  constexpr size_t kMostNameBytes = LUA_IDSIZE - 1;
  std::string prefix = scriptName_;
  if (prefix.size() > kMostNameBytes) {
    prefix = "..." + prefix.substr(prefix.size() - (kMostNameBytes - 3));
  }
  prefix += ':';
  if (!text.starts_with(prefix)) return 0;
  int line = 0;
  std::from_chars(text.data() + prefix.size(), text.data() + text.size(), line);
  return line;
}

void Interpreter::DescribeError(lua_State* L) {
  std::string text = Bounded(ErrorText(L, 1));
  luaL_traceback(L, L, nullptr, 1);
  pending_.trace = Bounded(std::string(BytesAt(L, -1)));
  pending_.line = LineInScript(L);
  pending_.text = std::move(text);
  pending_.error = kMarlinRuntime;
}

int Interpreter::OnError(lua_State* L) {
  Interpreter& interpreter = Of(L);
  if (!interpreter.IsEnding()) interpreter.DescribeError(L);
  lua_settop(L, 1);
  return 1;
}

ScriptResult Interpreter::RunLimited(lua_CFunction body, void* argument) {
  const int top = lua_gettop(state_);
  pending_ = {};
  memoryRefused_ = false;
  if (lua_checkstack(state_, 8) == 0) return ResultOf(LUA_ERRMEM);
  lua_pushcfunction(state_, ForScript<OnError>);
  lua_pushcfunction(state_, body);
  argument_ = argument;
  const int status = lua_pcall(state_, 0, 0, top + 1);
  argument_ = nullptr;
  ScriptResult result = ResultOf(status);
  lua_settop(state_, top);
  return result;
}

void* Interpreter::TakeArgument(lua_State* L) {
  void* const argument = std::exchange(argument_, nullptr);
  if (argument == nullptr) luaL_error(L, "this function is not for scripts");
  return argument;
}

ScriptResult Interpreter::RunProtected(lua_CFunction body, void* argument) {
  return RunLimited(body, argument);
}

MarlinError Interpreter::ErrorOfEnd() const {
  if (end_ == End::kInstructions) return kMarlinInstructions;
  return end_ == End::kInterruption ? kMarlinInterrupted : kMarlinExit;
}

ScriptResult Interpreter::ResultOf(int status) {
  ScriptResult result = std::exchange(pending_, {});
  if (IsEnding()) {
    result.error = ErrorOfEnd();
    result.text = endReason_;
    if (end_ == End::kExit) result = {};
    return result;
  }
  if (status == LUA_OK) return {};

  const bool isMemoryMessage = memoryRefused_ && result.text.ends_with(kMemoryMessage);
  if (status == LUA_ERRMEM || isMemoryMessage) {
    if (!isMemoryMessage) result.text = scriptName_ + ": " + kMemoryMessage;
    result.text += " (it may have " + std::to_string(settings_.memoryBytes / kMib) + " MiB)";
    result.error = kMarlinMemory;
    return result;
  }
  if (result.text.empty()) result.text = scriptName_ + ": an error while an error was handled";
  result.error = kMarlinRuntime;
  return result;
}

void Interpreter::ResetLimits() {
  instructions_ = 0;
  end_ = End::kNone;
  endReason_.clear();
  // Without a limit as well: the script may be interrupted.
  const uint64_t limit = settings_.instructions != 0 ? settings_.instructions : kCountInterval;
  lua_sethook(state_, CountHook, LUA_MASKCOUNT,
              static_cast<int>(std::min<uint64_t>(limit, kCountInterval)));
}

void Interpreter::SetScriptPath(const ZelString& path) {
  scriptName_ = FileNameOf(path).Utf8();
  chunkName_ = "@" + scriptName_;
  ZelString drive;
  ZelString directory;
  SplitPath(path, &drive, &directory, nullptr, nullptr);
  std::string folder((drive + directory).Utf8());
  RunLimited(ForScript<PublishDirectory>, &folder);
}

int Interpreter::PublishHandle(lua_State* L) {
  const auto& handle = *static_cast<const HandleArguments*>(::TakeArgument(L));
  lua_pushglobaltable(L);
  lua_pushlstring(L, handle.name->Utf8().data(), handle.name->Utf8().size());
  if (handle.value != nullptr) {
    lua_pushlightuserdata(L, handle.value);
  } else {
    lua_pushinteger(L, handle.number);
  }
  lua_rawset(L, -3);
  return 0;
}

ScriptResult Interpreter::SetHandle(const ZelString& name, void* value, int32_t number) {
  HandleArguments handle{&name, value, number};
  return RunLimited(ForScript<PublishHandle>, &handle);
}

int Interpreter::CompileScript(lua_State* L) {
  auto& script = *static_cast<CompileArguments*>(::TakeArgument(L));
  const int status =
      luaL_loadbufferx(L, script.text->data(), script.text->size(), script.chunkName->c_str(), "t");
  if (status == LUA_ERRMEM) RaiseMemoryError(L);
  if (status != LUA_OK) {
    script.isRefused = true;
    script.message = Bounded(std::string(BytesAt(L, -1)));
    return 0;
  }
  lua_rawsetp(L, LUA_REGISTRYINDEX, &kCompiledScript);
  return 0;
}

ScriptResult Interpreter::Compile(const std::string& text) {
  ResetLimits();
  CompileArguments script{.text = &text, .chunkName = &chunkName_, .message = {}};
  ScriptResult result = RunLimited(ForScript<CompileScript>, &script);
  if (result.error != kMarlinOk || !script.isRefused) return result;
  result.error = kMarlinSyntax;
  result.line = LineInMessage(script.message);
  result.text = std::move(script.message);
  return result;
}

int Interpreter::RunScript(lua_State* L) {
  auto& run = *static_cast<RunArguments*>(::TakeArgument(L));
  run.isCompiled = lua_rawgetp(L, LUA_REGISTRYINDEX, &kCompiledScript) != LUA_TNIL;
  if (!run.isCompiled) return 0;
  lua_call(L, 0, 0);

  lua_pushglobaltable(L);
  lua_pushlstring(L, run.procedure->Utf8().data(), run.procedure->Utf8().size());
  run.isMissing = lua_rawget(L, -2) != LUA_TFUNCTION;
  if (!run.isMissing) lua_call(L, 0, 0);
  return 0;
}

ScriptResult Interpreter::Run(const ZelString& procedure) {
  ResetLimits();
  if (ScriptsAreInterrupted()) {
    return {kMarlinInterrupted, scriptName_ + ": " + kInterruptedMessage, 0, {}};
  }
  RunArguments run{.procedure = &procedure};
  ScriptResult result = RunLimited(ForScript<RunScript>, &run);
  if (result.error != kMarlinOk || IsEnding()) return result;
  if (!run.isCompiled) return {kMarlinInternal, "no script has been compiled", 0, {}};
  if (run.isMissing) {
    const std::string name(procedure.Utf8());
    return {kMarlinNoProcedure, scriptName_ + ": there is no function " + name, 0, {}};
  }
  return result;
}

const char* ScriptName(lua_State* L) {
  return Interpreter::Of(L).ScriptName().c_str();
}

MarlinContext& ContextOf(lua_State* L) {
  return Interpreter::Of(L).Context();
}

void* TakeArgument(lua_State* L) {
  return Interpreter::Of(L).TakeArgument(L);
}

bool IsClosing(lua_State* L) {
  return Interpreter::Of(L).IsClosing();
}

void CountWork(lua_State* L, size_t steps) {
  Interpreter::Of(L).Count(L, steps);
}

void RaiseMemoryError(lua_State* L) {
  Interpreter::Of(L).NoteMemoryRefused();
  luaL_error(L, kMemoryMessage);
  std::abort();  // luaL_error does not return, which its declaration does not tell
}

ScriptMemory::ScriptMemory(lua_State* L) : interpreter_(Interpreter::Of(L)) {}

ScriptMemory::~ScriptMemory() {
  interpreter_.ChangeMemory(bytes_, 0);
}

bool ScriptMemory::Add(lua_State* L, size_t bytes) {
  if (!interpreter_.AddMemory(L, bytes)) return false;
  bytes_ += bytes;
  return true;
}

void ScriptMemory::Set(size_t bytes) {
  interpreter_.ChangeMemory(bytes_, bytes);
  bytes_ = bytes;
}
