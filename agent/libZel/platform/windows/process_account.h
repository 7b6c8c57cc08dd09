#pragma once

#include <windows.h>

#include <sddl.h>

#include <cstddef>
#include <string>
#include <vector>

#include "agent/libZel/platform/windows/local_memory.h"
#include "agent/libZel/platform/windows/unique_handle.h"

/// The account that a process runs as; none where the system does not tell.
class ProcessAccount {
 public:
  /// Of this process, or of one that was opened for such questions.
  explicit ProcessAccount(HANDLE process = GetCurrentProcess()) {
    HANDLE opened = nullptr;
    if (!OpenProcessToken(process, TOKEN_QUERY, &opened)) return;
    const UniqueHandle token(opened);
    DWORD size = 0;
    GetTokenInformation(token.Get(), TokenUser, nullptr, 0, &size);
    user_.resize(size);
    if (!GetTokenInformation(token.Get(), TokenUser, user_.data(), size, &size)) user_.clear();
  }

  /// Lives as long as this object; null for none.
  PSID Sid() const {
    return user_.empty() ? nullptr : reinterpret_cast<const TOKEN_USER*>(user_.data())->User.Sid;
  }

  /// The SID as a text; empty for none.
  std::wstring Text() const {
    wchar_t* text = nullptr;
    if (Sid() == nullptr || !ConvertSidToStringSidW(Sid(), &text)) return {};
    const LocalMemory<> owner(text);
    return text;
  }

 private:
  std::vector<std::byte> user_;
};
