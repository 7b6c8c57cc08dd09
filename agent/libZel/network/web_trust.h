#pragma once

#include <filesystem>

/// A file with certificates of authorities (PEM) that checks of web servers trust in addition to
/// the system's own; empty, as at first, for none. Holds for the whole process from now on. It is
/// read anew for each check.
void SetWebAuthorities(const std::filesystem::path& file);
std::filesystem::path GetWebAuthorities();
