#pragma once

#include <sys/types.h>

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "agent/libZel/user_sessions.h"

/// An account of this machine.
struct Account {
  uid_t user = 0;
  gid_t group = 0;
  std::vector<gid_t> groups;
  std::string name;
  std::string home;
  std::string shell;
};

/// Reads the account of that number; false when there is none.
bool ReadAccount(uid_t user, Account* account);

using SessionVariables = std::map<std::string, std::string, std::less<>>;

/// What a process's environment, "NAME=value" each with a NUL behind it, says about its desktop and
/// language; of several of one name the first. Values of 4096 bytes and more are left out.
SessionVariables ReadSessionVariables(std::string_view environment);

/// The environment, "NAME=value" each, of a program that is started in the session: what every
/// program of that account gets, and what a program of that session says about its desktop and
/// language. That is the user's word, for the user's own program alone: nothing here is looked at
/// but the name and the length.
std::vector<std::string> SessionEnvironment(const Account& account, const UserSession& session);
