#pragma once

#include <filesystem>
#include <string>

/// By what a fleet tells this device from others whatever their names are: a random UUID (RFC 4122
/// version 4) of 36 characters in lower case. It is read from `file`; where there is no such file
/// it is made and kept there, for the owner's eyes only. Throws std::runtime_error naming the file
/// when it cannot be read, holds no UUID or cannot be written: a device that forgot who it was must
/// not become another one by itself.
std::string DeviceIdentity(const std::filesystem::path& file);
