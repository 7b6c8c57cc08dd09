#include "tests/contract/allocation_fault.h"

#include <cstdlib>
#include <new>

AllocationFault allocationFault;

namespace {

bool IsNextToFail() {
  AllocationFault& fault = allocationFault;
  if (!fault.isArmed) return false;
  ++fault.count;
  return fault.andLater ? fault.count >= fault.failing : fault.count == fault.failing;
}

}  // namespace

// In a file of their own: inlined into their callers, they look mismatched to the compiler.

void* operator new(size_t size) {
  if (IsNextToFail()) throw std::bad_alloc();
  if (void* memory = std::malloc(size ? size : 1)) return memory;
  throw std::bad_alloc();
}

void operator delete(void* memory) noexcept {
  std::free(memory);
}

void operator delete(void* memory, size_t) noexcept {
  std::free(memory);
}
