#pragma once

#include <sys/stat.h>

/// What a copy takes over of a file's mode. Set-user-ID and its like stay behind: it may have
/// another owner.
constexpr mode_t kPermissions = S_IRWXU | S_IRWXG | S_IRWXO;

/// Without any of these a file counts as read-only.
constexpr mode_t kAnyWrite = S_IWUSR | S_IWGRP | S_IWOTH;
