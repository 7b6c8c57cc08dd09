#include "tests/fake_host/fake_host.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "tests/fake_host/transcript.h"

namespace {

FakeHost* currentHost = nullptr;

std::string DescribeValue(const ZelContainer::Entry& entry, size_t index) {
  switch (entry.Type()) {
    case ZelValueType::kString:
      return "String " + Quote(entry.StringAt(index));
    case ZelValueType::kInt32:
      return "Int32 " + std::to_string(entry.IntegerAt(index));
    case ZelValueType::kInt64:
      return "Int64 " + std::to_string(entry.IntegerAt(index));
    case ZelValueType::kBool:
      return "Bool " + Flag(entry.BoolAt(index));
    case ZelValueType::kContainer:
      return Describe(entry.ContainerAt(index));
  }
  return "unknown type";
}

std::string DescribeEntry(const ZelContainer::Entry& entry) {
  std::string values;
  for (size_t i = 0; i < entry.Count(); ++i) {
    values += (i ? ", " : "") + DescribeValue(entry, i);
  }
  return std::string(entry.Key()) + ": " + (entry.IsList() ? "[" + values + "]" : values);
}

}  // namespace

std::string Describe(const ZelContainer& container) {
  std::string text = "{";
  for (size_t i = 0; i < container.CountKeys(); ++i) {
    text += (i ? ", " : "") + DescribeEntry(container.EntryAt(i));
  }
  return text + "}";
}

FakeHost::FakeHost() : complain_([](const std::string& what) { ADD_FAILURE() << what; }) {
  if (currentHost) throw std::logic_error("a fake host exists already");
  // Enough for every test that lets memory run out: see NoteRelease.
  transcript_.reserve(1000);
  currentHost = this;
}

FakeHost::~FakeHost() {
  currentHost = nullptr;
  if (failingCall_) return;
  for (const std::string& answer : LeftOverAnswers()) {
    complain_("nobody asked for the scripted answer of " + answer);
  }
}

void FakeHost::Answer(const std::string& function, int64_t value) {
  answers_[function].push({.value = value});
}

void FakeHost::AnswerAlways(const std::string& function, int64_t value) {
  standing_[function] = value;
}

void FakeHost::AnswerText(const std::string& function, const ZelString& text, int64_t value) {
  answers_[function].push({.value = value, .text = text});
}

void FakeHost::AnswerLaunch(int started, bool failed, std::function<void()> meanwhile) {
  answers_["ExecRedirect"].push(
      {.value = started, .meanwhile = std::move(meanwhile), .flag = failed});
}

void FakeHost::AnswerWork(const std::string& function, int64_t value,
                          std::function<void()> meanwhile) {
  answers_[function].push({.value = value, .meanwhile = std::move(meanwhile)});
}

void FakeHost::AnswerDialog(const std::string& function, int64_t value, bool setsError,
                            std::function<void()> meanwhile) {
  answers_[function].push({.value = value, .meanwhile = std::move(meanwhile), .flag = setsError});
}

void FakeHost::AnswerList(const std::string& function, std::vector<ZelString> list, int64_t value) {
  answers_[function].push({.value = value, .list = std::move(list), .isList = true});
}

void FakeHost::AnswerModule(bool loaded, void* handle) {
  answers_["MarlinContext::LoadFunctionModule"].push({.value = loaded, .pointer = handle});
}

void FakeHost::AnswerProcesses(std::vector<ProcessInfo> processes) {
  answers_["ProcessAccess::GetProcessList"].push({.processes = std::move(processes)});
}

void FakeHost::AnswerBytes(const std::string& function, std::string bytes) {
  const auto count = static_cast<int64_t>(bytes.size());
  AnswerBytes(function, std::move(bytes), count);
}

void FakeHost::AnswerBytes(const std::string& function, std::string bytes, int64_t value) {
  answers_[function].push({.value = value, .bytes = std::move(bytes), .hasBytes = true});
}

void FakeHost::AnswerDirectory(std::vector<DirectoryEntry> entries) {
  answers_["OpenDirectory"].push({.entries = std::move(entries), .isDirectory = true});
}

void FakeHost::AnswerInvocation(uint32_t code, std::function<void(ZelContainer&)> change,
                                const std::string& function) {
  answers_[function].push({.value = code, .change = std::move(change)});
}

void FakeHost::FailCall(size_t n, Fault fault) {
  failingCall_ = n;
  fault_ = fault;
}

void FakeHost::ForgetTranscript() {
  transcript_.clear();
  calls_ = 0;
}

std::vector<std::string> FakeHost::LeftOverAnswers() const {
  std::vector<std::string> left;
  for (const auto& [function, queue] : answers_) left.insert(left.end(), queue.size(), function);
  return left;
}

FakeHost& FakeHost::Current() {
  if (!currentHost) throw std::logic_error("a host call without a fake host");
  return *currentHost;
}

bool FakeHost::IsFailingCall() const {
  return fault_ == Fault::kThrowFromHere ? failingCall_ && calls_ >= failingCall_
                                         : calls_ == failingCall_;
}

void FakeHost::Note(const std::string& line) {
  transcript_.push_back(line);
  ++calls_;
  if (watch_) watch_(line);
  if (IsFailingCall() && fault_ != Fault::kAnswerFailure) {
    throw std::runtime_error("host call " + std::to_string(calls_) + " failed");
  }
}

void FakeHost::NoteRelease(const char* line) noexcept {
  if (transcript_.size() < transcript_.capacity()) transcript_.emplace_back(line);
  ++calls_;
  --held_;
  if (watch_) watch_(line);
}

bool FakeHost::NoteAndTest(const std::string& line) {
  Note(line);
  return !IsFailingCall();
}

const std::string& FakeHost::Keep(std::string bytes) {
  return kept_.emplace_back(std::move(bytes));
}

void FakeHost::Complain(const std::string& what) {
  if (!failingCall_) complain_(what);
}

FakeHost::ScriptedAnswer FakeHost::Ask(const std::string& function, const std::string& arguments,
                                       int64_t failure) {
  const std::string line = function + "(" + arguments + ")";
  Note(line);
  if (IsFailingCall()) return {.value = failure};

  std::queue<ScriptedAnswer>& queue = answers_[function];
  if (queue.empty()) {
    const auto standing = standing_.find(function);
    if (standing != standing_.end()) return {.value = standing->second};
    if (!failingCall_) complain_("no answer is scripted for " + line);
    return {.value = failure};
  }
  ScriptedAnswer answer = std::move(queue.front());
  queue.pop();
  return answer;
}
