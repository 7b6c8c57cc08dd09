#pragma once

#include <windows.h>

#include <memory>

struct FreeLocal {
  void operator()(void* memory) const { LocalFree(memory); }
};
/// Owns what the system has allocated and `LocalFree` frees; null is nothing.
template <typename Content = void>
using LocalMemory = std::unique_ptr<Content, FreeLocal>;
