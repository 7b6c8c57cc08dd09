#pragma once

#include <cstdint>

#include "libZel.h"
#include "libZelCore.h"

// What every action handler shares: its result codes, its shared keys, and how it reads parameters.
//
// Unless its own description says otherwise, a handler reads all its parameters, clears the
// container (so that none of them travels back), logs one line, checks its preconditions, does its
// work, writes its results into the same container and returns a result code. It may throw: the
// registry turns an exception into `kFailure`.

/// What an action (`ActionHandler`) answers to the core, which hands it to whoever invoked it.
using ResultCode = uint32_t;

constexpr ResultCode kSuccess = 0;
constexpr ResultCode kFailure = 1;
/// The privacy check refused the access.
constexpr ResultCode kAccessRefused = 12;
/// A parameter is missing or malformed.
constexpr ResultCode kBadParameter = 13;
/// A step of an SMB connection failed.
constexpr ResultCode kSmbStepFailed = 20;
/// The named file does not exist.
constexpr ResultCode kFileNotFound = 14001;
/// The master could not be invoked, or the invocation failed.
constexpr ResultCode kMasterNotInvoked = 32003;

/// The main answer; its type is the action's.
constexpr const char* kResult = "Result";
/// Int32: a numeric error detail.
constexpr const char* kErrorCode = "ErrorCode";
/// List of containers: the rows of a table, absent when there are none.
constexpr const char* kValues = "Values";

/// The text under `key`; empty when the key is absent, or holds a list or another type.
inline ZelString ReadString(const ZelContainer& params, const ZelString& key) {
  ZelString value;
  params.GetString(key, &value, kNoIndex);
  return value;
}

/// The flag under `key`; `preset` when the key is absent, or holds a list or another type.
inline bool ReadBool(const ZelContainer& params, const ZelString& key, bool preset = false) {
  bool value = preset;
  params.GetBool(key, &value, kNoIndex);
  return value;
}
