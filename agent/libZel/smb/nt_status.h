#pragma once

#include <cstdint>
#include <string>

namespace smb {

constexpr uint32_t kStatusSuccess = 0x00000000;
constexpr uint32_t kStatusPending = 0x00000103;
constexpr uint32_t kStatusMoreProcessing = 0xC0000016;

/// A server's answer by its name in [MS-ERREF] where it is a common one, else as a number.
std::string DescribeStatus(uint32_t status);

}  // namespace smb
