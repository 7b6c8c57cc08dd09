#pragma once

#include <windows.h>

#include <chrono>

// What the system knows of the person at the machine. Any thread may call.

/// Since the last touch of keyboard or pointer; 0 where the system does not know. Input of
/// `SendOwnInput` does not count.
std::chrono::milliseconds IdleTime();

/// Whether the session's own lock is on.
bool IsSessionLocked();
bool IsScreenSaverOn();

/// Sends an input that does nothing, with `mark` for hooks to know it by. The system lets only the
/// program that got the last input come to the front: afterwards this is the one.
void SendOwnInput(ULONG_PTR mark);
