#pragma once

#include <set>
#include <string>

/// A loaded library: its address is its handle for `GetProcAddress`.
struct FakeLibrary {
  /// Of the functions of a function module, those that it has.
  std::set<std::string> exports;
};
