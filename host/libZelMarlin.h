#pragma once

#include <cstdint>
#include <memory>

#include "libZel/string.h"
#include "libZel/url.h"

class XmlProxyClient;

// The script engine. Scripts are written in Lua 5.4 with its standard libraries; docs/scripting.md
// tells how. For want of memory, constructors and functions that store or return a text throw
// std::bad_alloc, other than those of `MarlinContext` that prepare, compile or run a script.
// Nothing else is thrown.

// NOLINTBEGIN(readability-identifier-naming): the library's own names
enum enum_VarListType : int {
  kVarListGlobal = 2,  ///< variables of the whole script, and the engine's own
};
// NOLINTEND(readability-identifier-naming)

/// A variable that scripts see under its name.
class Variable {
 public:
  explicit Variable(const ZelString& name) : name_(name) {}
  virtual ~Variable() = default;
  Variable(const Variable&) = delete;
  Variable& operator=(const Variable&) = delete;

  void SetVarName(const ZelString& name) { name_ = name; }
  const ZelString& GetVarName() const { return name_; }

 private:
  ZelString name_;
};

/// A variable that stands for an object outside the script, or an integer of the engine's own.
class VarHandle : public Variable {
 public:
  /// `typeName` says what it stands for ("ContainerHandle"); `flags` is 0.
  VarHandle(const ZelString& typeName, const ZelString& varName, int flags);

  const ZelString& GetTypeName() const { return typeName_; }
  /// The object is not owned.
  void SetHandleValue(void* value) { value_ = value; }
  void* GetHandleValue() const { return value_; }
  void SetIntegerValue(int32_t value) { integer_ = value; }
  int32_t GetIntegerValue() const;

 private:
  ZelString typeName_;
  void* value_ = nullptr;
  int32_t integer_ = 0;
};

/// Arguments and results of a script's procedure. Scripts are called with none.
class Stack {};

/// What can go wrong with a script.
enum MarlinError : int {
  kMarlinOk = 0,
  kMarlinNotReadable = 1,   ///< the script file cannot be read, or is too large
  kMarlinNotText = 2,       ///< it is compiled code or in an encoding that is not supported
  kMarlinSyntax = 3,        ///< it is not well-formed
  kMarlinNoProcedure = 4,   ///< it has no procedure of the name to be run
  kMarlinRuntime = 5,       ///< an error was raised while it ran
  kMarlinMemory = 6,        ///< it needed more memory than it may have
  kMarlinInstructions = 7,  ///< it ran for more instructions than it may
  kMarlinDepth = 8,         ///< scripts run by scripts are nested too deep
  kMarlinExit = 9,          ///< it ended itself with a failure
  kMarlinInternal = 10,     ///< the engine failed
  kMarlinInterrupted = 11,  ///< it was ended because the agent stops
};

/// Names and texts of error codes.
class ErrorList {
 public:
  /// A sentence: "The script is not well-formed". A code that is not known has one too.
  ZelString GetErrorText(int code) const;
  /// A name for programs: "MARLIN_ERROR_SYNTAX".
  ZelString GetErrorName(int code) const;
};

/// One script with everything it needs to run: an interpreter of its own.
///
/// Threads: one at a time; contexts are independent.
class MarlinContext {
 public:
  /// `proxy` gives scripts access to the user session; may be null. Not owned: it must stay until
  /// the last procedure has been run, and may go before the context.
  explicit MarlinContext(XmlProxyClient* proxy);
  ~MarlinContext();
  MarlinContext(const MarlinContext&) = delete;
  MarlinContext& operator=(const MarlinContext&) = delete;

  void SetXmlProxyClient(XmlProxyClient* proxy);
  XmlProxyClient* GetXmlProxyClient() const;
  /// The agent's handle of itself, see `ZelAgentGetAppHandle`.
  void SetAppInstance(void* instance);
  /// The agent's executable; function modules are looked for beside it.
  void SetExePath(const ZelString& path);
  /// Where INI files of the engine are, ending in a separator.
  void SetIniDir(const ZelString& directory);

  /// Loads a library of functions for scripts and lets it add them to this context. `module` is its
  /// file name; the engine's settings are read from `iniFile` in the INI directory, or from
  /// marlin.ini when that is empty. `*moduleHandle` receives the library's handle for
  /// `GetProcAddress`; it is left as it was on failure. The library stays loaded until the process
  /// ends. True on success; the reason of a failure goes to the library's log.
  bool LoadFunctionModule(ZelString& module, const ZelString& iniFile, void** moduleHandle);
  /// The INI file that was used; empty before `LoadFunctionModule`.
  ZelString GetIniPath() const;

  /// Adds a variable, which the context then owns. Scripts see a handle as a value that only
  /// function modules can use.
  void AddVariable(Variable* variable, enum_VarListType list);
  /// A variable that was added, or "ErrLine": the line of the script where the last error was found
  /// (counted from 1, 0 when no line is known). Null for any other name; owned by the context.
  VarHandle* GetVariable(const ZelString& name, enum_VarListType list);

  /// The script's file, for messages. `kind` is 1.
  void SetScriptFile(const ZelString& path, int kind);
  /// Reads and compiles a script; nothing of it runs. 1 on success, else 0: see `GetContextError`.
  int CompileScriptFile(const ZelString& path);
  /// Runs the compiled script and then its procedure `name`. 1 on success, else 0.
  int RunProcedure(const ZelString& name, Stack* stack);

  /// The last error: a `MarlinError`.
  int GetContextError() const;
  /// What it was in this case, with file and line: "job.mlx:3: attempt to call a nil value ...".
  ZelString GetContextErrorText() const;
  const ErrorList& GetErrorList() const;

  struct Implementation;
  /// For function modules of the agent.
  Implementation& GetImplementation() const { return *implementation_; }

 private:
  std::unique_ptr<Implementation> implementation_;
};

/// The parts of a path, as `SplitPath` tells them apart.
class PathParser {
 public:
  void LoadPath(const ZelString& path);
  const ZelString& GetDrive() const { return drive_; }
  const ZelString& GetDir() const { return directory_; }
  /// Name and extension.
  ZelString GetFileName() const { return name_ + extension_; }
  const ZelString& GetFileNameWithoutExt() const { return name_; }

 private:
  ZelString drive_;
  ZelString directory_;
  ZelString name_;
  ZelString extension_;
};
