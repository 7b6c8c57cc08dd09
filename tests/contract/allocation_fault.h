#pragma once

#include <cstddef>

/// While armed, counts the program's allocations and fails the chosen one (counted from 1), and all
/// after it when `andLater`. For one thread.
struct AllocationFault {
  bool isArmed = false;
  size_t failing = 0;
  bool andLater = false;
  size_t count = 0;
};

/// Obeyed by the program's operator new.
extern AllocationFault allocationFault;
