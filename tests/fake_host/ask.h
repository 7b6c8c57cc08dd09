#pragma once

#include <cstdint>
#include <string>

#include "tests/fake_host/fake_host.h"

// What the functions of the fake host ask for their answers with: each notes the call and takes the
// scripted answer, or `failure`.

inline FakeHost& Host() {
  return FakeHost::Current();
}

inline int64_t Ask(const std::string& function, const std::string& arguments = "",
                   int64_t failure = 0) {
  return Host().Ask(function, arguments, failure).value;
}

inline int AskInt(const std::string& function, const std::string& arguments = "",
                  int64_t failure = 0) {
  return static_cast<int>(Ask(function, arguments, failure));
}

inline uint32_t Ask32(const std::string& function, const std::string& arguments = "",
                      int64_t failure = 0) {
  return static_cast<uint32_t>(Ask(function, arguments, failure));
}

inline ZelString AskText(const std::string& function, const std::string& arguments = "") {
  return Host().Ask(function, arguments).text;
}

template <typename Object>
Object* AskPointer(const std::string& function) {
  return reinterpret_cast<Object*>(static_cast<uintptr_t>(Ask(function, "")));
}

/// Asks for what takes a while, in which a test may act.
inline FakeHost::ScriptedAnswer AskAndWork(const std::string& function,
                                           const std::string& arguments, int64_t failure = 0) {
  FakeHost::ScriptedAnswer answer = Host().Ask(function, arguments, failure);
  if (answer.meanwhile) answer.meanwhile();
  return answer;
}
