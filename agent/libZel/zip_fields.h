#pragma once

#include <cstdint>

// What archives tell of an entry besides the fields that all entries have: the identifiers of the
// extra fields that are read or written here.

constexpr uint16_t kZip64Field = 0x0001;
constexpr uint16_t kNtfsField = 0x000a;
constexpr uint16_t kUnixTimeField = 0x5455;
constexpr uint16_t kUtf8NameField = 0x7075;

/// Of the permissions: without any of these a file is read-only.
constexpr uint32_t kZipWriteBits = 0222;
