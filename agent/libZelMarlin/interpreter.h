#pragma once

#include <lua.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "agent/libZelMarlin/engine_settings.h"
#include "agent/libZelMarlin/script_source.h"
#include "libZelMarlin.h"

/// How something that was done with a script ended.
struct ScriptResult {
  MarlinError error = kMarlinOk;
  /// What it was, for people.
  std::string text;
  /// The line of the script, counted from 1; 0 when it is not known.
  int line = 0;
  /// Which calls led there, one a line; for the log.
  std::string trace;
};

/// A script's interpreter: a Lua state that counts its memory and its instructions.
///
/// Functions without another word throw nothing and return what went wrong.
class Interpreter {
 public:
  /// Null for want of memory.
  static std::unique_ptr<Interpreter> Make(MarlinContext& context, const EngineSettings& settings);
  /// The finalizers of the script run here.
  ~Interpreter();
  Interpreter(const Interpreter&) = delete;
  Interpreter& operator=(const Interpreter&) = delete;

  void SetSettings(const EngineSettings& settings) { settings_ = settings; }
  /// Where the script is: messages carry its file name, and `require` looks beside it.
  void SetScriptPath(const ZelString& path);
  const std::string& ScriptName() const { return scriptName_; }

  /// Makes a handle variable visible to scripts.
  ScriptResult SetHandle(const ZelString& name, void* value, int32_t number);
  ScriptResult Compile(const std::string& text);
  /// Runs what was compiled, and then its global function `procedure`. An end by `os.exit` is a
  /// success or `kMarlinExit`.
  ScriptResult Run(const ZelString& procedure);
  /// Runs `body`, which gets `argument` by `TakeArgument`.
  ScriptResult RunProtected(lua_CFunction body, void* argument);

  // What functions of scripts use.

  static Interpreter& Of(lua_State* L) {
    return **static_cast<Interpreter**>(lua_getextraspace(L));
  }
  MarlinContext& Context() const { return context_; }
  /// See `TakeArgument` of functions.
  void* TakeArgument(lua_State* L);
  /// Counts work that is done for the script as if it were instructions of its own. May end it.
  void Count(lua_State* L, uint64_t instructions);

  /// What a script cannot go on after, whatever it catches.
  enum class End { kNone, kInstructions, kInterruption, kExit, kExitWithFailure };
  [[noreturn]] void EndScript(lua_State* L, End end, const std::string& reason);
  /// Raises the script's end again where it has been caught.
  [[noreturn]] void GoOnEnding(lua_State* L);
  /// Has the end raised at the next instruction of `L`, where it cannot be raised at once.
  static void StopSoon(lua_State* L);
  bool IsEnding() const { return end_ != End::kNone; }
  bool IsClosing() const { return isClosing_; }
  /// Counts what making a coroutine stands for: it starts to count at 0.
  void CountCoroutine(lua_State* L);

  /// Counts memory beside the interpreter's own; see `ScriptMemory`.
  bool AddMemory(lua_State* L, size_t bytes);
  void ChangeMemory(size_t from, size_t to) { usedBytes_ = usedBytes_ - from + to; }
  void NoteMemoryRefused() { memoryRefused_ = true; }

 private:
  Interpreter(MarlinContext& context, const EngineSettings& settings);

  static void* Allocate(void* self, void* block, size_t oldSize, size_t newSize);
  static void CountHook(lua_State* L, lua_Debug* where);
  static void Warn(void* self, const char* text, int toBeContinued);
  static int OnError(lua_State* L);
  static int RunScript(lua_State* L);
  static int CompileScript(lua_State* L);
  static int PublishHandle(lua_State* L);

  bool Open();
  void ResetLimits();
  MarlinError ErrorOfEnd() const;
  ScriptResult RunLimited(lua_CFunction body, void* argument);
  ScriptResult ResultOf(int status);
  void DescribeError(lua_State* L);
  int LineInScript(lua_State* L) const;
  int LineInMessage(const std::string& text) const;

  MarlinContext& context_;
  EngineSettings settings_;
  lua_State* state_ = nullptr;
  std::string scriptName_ = "script";
  std::string chunkName_ = "@script";
  ZelString scriptDirectory_;

  uint64_t usedBytes_ = 0;
  bool memoryRefused_ = false;
  /// For the function that is about to run; no value of the script, which could pass another one.
  void* argument_ = nullptr;
  uint64_t instructions_ = 0;
  End end_ = End::kNone;
  bool isClosing_ = false;
  std::string endReason_;
  std::string warning_;
  /// What the error under way is; filled in where it is raised, with the calls still there.
  ScriptResult pending_;
};
