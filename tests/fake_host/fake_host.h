#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <queue>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "libZelCore.h"
#include "libZelMarlin.h"

/// Prints a container for comparison in tests, with the types of its values:
/// `{Result: Int32 0, Names: [String "a", String "b"]}`.
std::string Describe(const ZelContainer& container);

/// Stands in for the agent: defines the functions of host/ that have effects. Each call becomes one
/// line of a transcript, with its arguments as passed; what it answers was scripted before. Value
/// types and pure functions (strings, containers, path splitting, URLs) are the real ones.
///
/// A call that answers something fails the test unless an answer was scripted for it; so does an
/// answer that nobody asked for. One FakeHost exists at a time, and
/// one thread at a time uses it.
class FakeHost {
 public:
  FakeHost();
  /// Fails the test for answers left over.
  ~FakeHost();
  FakeHost(const FakeHost&) = delete;
  FakeHost& operator=(const FakeHost&) = delete;

  /// What the next call of `function` returns (a flag is 0 or 1, a pointer its number).
  void Answer(const std::string& function, int64_t value);
  /// What every call of `function` returns that has no answer of its own. Not missed when nobody
  /// asks.
  void AnswerAlways(const std::string& function, int64_t value);
  /// What the next call of `function` fills in, for those that give bytes; it returns `value`,
  /// which is their number unless said otherwise.
  void AnswerBytes(const std::string& function, std::string bytes);
  void AnswerBytes(const std::string& function, std::string bytes, int64_t value);
  struct DirectoryEntry {
    ZelString name;
    /// What `ZelDirectory` tells of the entry; `FileGetAttributes` has answers of its own.
    uint32_t attributes = 0;
  };
  /// What the next directory opened by `OpenDirectory` holds, in this order. To refuse: Answer it
  /// 0.
  void AnswerDirectory(std::vector<DirectoryEntry> entries);
  /// What the next call of `function` returns or fills in, for those that give a text; those that
  /// answer a number besides return `value`, and fill nothing in when it is 0.
  void AnswerText(const std::string& function, const ZelString& text, int64_t value = 1);
  /// What the next ExecRedirect returns, and whether it sets its flag; it calls `meanwhile`.
  void AnswerLaunch(int started, bool failed, std::function<void()> meanwhile = {});
  /// What the next call of `function` returns, one that takes a while; it calls `meanwhile`.
  void AnswerWork(const std::string& function, int64_t value, std::function<void()> meanwhile);
  /// What the next call of `function`, an operation of a dialog ("SkinDialog" is its constructor),
  /// returns where it returns anything, and whether it sets its error flag; it calls `meanwhile`.
  /// Without a flag of its own, the value -1 stands for 0 and an error.
  void AnswerDialog(const std::string& function, int64_t value, bool setsError,
                    std::function<void()> meanwhile = {});
  /// What the next call of `function` lists, for those that give texts; those that answer a number
  /// besides return `value`.
  void AnswerList(const std::string& function, std::vector<ZelString> list, int64_t value = 0);
  /// What the next MarlinContext::LoadFunctionModule returns, and the handle that it gives; null
  /// leaves the caller's as it was.
  void AnswerModule(bool loaded, void* handle);
  /// What the next ProcessAccess::GetProcessList lists.
  void AnswerProcesses(std::vector<ProcessInfo> processes);
  /// What the next ActionDbInvokeContainer (or InvokeContainerToMasterWithTempTunnel, when
  /// `function` says so) returns, and what it makes of the container.
  void AnswerInvocation(uint32_t code, std::function<void(ZelContainer&)> change = {},
                        const std::string& function = "ActionDbInvokeContainer");

  enum class Fault {
    kThrowOnce,      ///< call n throws std::runtime_error
    kThrowFromHere,  ///< so do all calls after it
    kAnswerFailure,  ///< call n answers failure, whatever was scripted
  };
  /// Makes call `n` (counted from 1, log lines included) fail. What follows may then differ from
  /// the script: calls without an answer answer failure, and answers may be left over.
  void FailCall(size_t n, Fault fault);

  /// Called with the line of each call, log lines and releases included, before the call answers
  /// or throws. It may make calls of its own, of which it is told too.
  void WatchCalls(std::function<void(std::string_view)> watch) { watch_ = std::move(watch); }

  /// One line for each call so far, log lines included.
  const std::vector<std::string>& Transcript() const { return transcript_; }
  /// Starts the transcript, and the count of calls, anew.
  void ForgetTranscript();
  /// How many handles, buffers and objects of the host were given out and not released. Dialogs do
  /// not count: they may outlive their action. Below 0: something was released that nobody had.
  int Held() const { return held_; }
  /// Answers that nobody has asked for, one line for each.
  std::vector<std::string> LeftOverAnswers() const;

  /// Reported for unscripted calls and left-over answers; fails the running test by default.
  using Complaint = std::function<void(const std::string&)>;
  void ComplainTo(Complaint complain) { complain_ = std::move(complain); }

  struct Registration {
    std::string signature;
    ActionHandler handler;
    void* context;
  };
  /// The actions registered so far, in order.
  const std::vector<Registration>& Registrations() const { return registrations_; }

  /// Whether a thread waits for a `ZelMutex` that another one holds. Any thread may ask.
  static bool HasWaitingThread();

  /// Name and description of every logger that this program has constructed.
  static const std::vector<std::pair<std::string, std::string>>& Loggers();

  // For the functions of the fake alone.
  struct ScriptedAnswer {
    int64_t value = 0;
    ZelString text = {};
    std::string bytes = {};
    bool hasBytes = false;
    std::vector<DirectoryEntry> entries = {};
    bool isDirectory = false;
    std::function<void(ZelContainer&)> change = {};
    std::function<void()> meanwhile = {};
    bool flag = false;
    void* pointer = nullptr;
    std::vector<ProcessInfo> processes = {};
    std::vector<ZelString> list = {};
    bool isList = false;
  };
  static FakeHost& Current();
  /// Notes a call that answers nothing; throws when this call is to fail by throwing.
  void Note(const std::string& line);
  /// Notes a call that releases something, as destructors make it: it answers nothing that matters
  /// and throws nothing, whatever is to fail. `line` has at most 15 characters, so that even
  /// without memory it finds its place in the transcript.
  void NoteRelease(const char* line) noexcept;
  /// Something was opened or made that a call of NoteRelease is to release.
  void Hold() noexcept { ++held_; }
  /// Notes a call that needs no script; false when it is to answer failure.
  bool NoteAndTest(const std::string& line);
  /// Keeps bytes that a call hands out a pointer to, as long as this host.
  const std::string& Keep(std::string bytes);
  /// Reports an answer that does not fit its call, unless a call was made to fail.
  void Complain(const std::string& what);
  /// Notes a call and takes its answer, or `failure`.
  ScriptedAnswer Ask(const std::string& function, const std::string& arguments,
                     int64_t failure = 0);
  void Remember(Registration registration) { registrations_.push_back(std::move(registration)); }

 private:
  bool IsFailingCall() const;

  std::vector<std::string> transcript_;
  std::vector<Registration> registrations_;
  std::map<std::string, std::queue<ScriptedAnswer>> answers_;
  std::map<std::string, int64_t> standing_;
  std::deque<std::string> kept_;
  Complaint complain_;
  std::function<void(std::string_view)> watch_;
  size_t calls_ = 0;
  int held_ = 0;
  size_t failingCall_ = 0;
  Fault fault_ = Fault::kThrowOnce;
};
