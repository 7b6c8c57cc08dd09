#pragma once

#include <cstdint>
#include <string>

/// "code 14001: the named file does not exist"; without a meaning for codes that have none.
std::string DescribeCode(uint32_t code);
