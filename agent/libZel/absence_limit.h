#pragma once

#include <chrono>

/// How long the user may touch neither keyboard nor pointer without counting as absent. Holds for
/// the whole process from now on; ten minutes until it is set.
void SetAbsenceLimit(std::chrono::milliseconds limit);
std::chrono::milliseconds GetAbsenceLimit();
