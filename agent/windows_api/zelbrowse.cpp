// zelbrowse domains | servers [DOMAIN]
//
// Asks the browsers of the Windows network, by libsmbclient, for the domains and workgroups or for
// the computers of one of them (without DOMAIN: of this machine's own, `workgroup` in smb.conf).
// Writes the names in UTF-8, each with a NUL behind it, and ends with 0; with 2 and a reason in one
// line when there is no such domain, with 1 and a reason when no browser answers.
//
// The agent starts it for each question and bounds its time. It speaks the oldest protocol that
// servers still know, with whoever answers first, in a library made for it: so it has no
// capabilities, nothing of a user's, no environment of the agent's, and a bound to its memory. What
// its account may do is left: that of `nobody` when it was started by root, else the agent's own.

#include <fcntl.h>
#include <grp.h>
#include <libsmbclient.h>
#include <linux/capability.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "agent/libZel/ascii.h"

namespace {

constexpr int kExitNoBrowser = 1;
constexpr int kExitNoSuchDomain = 2;

/// Debian's and most others' `nobody` and `nogroup`.
constexpr uid_t kNobody = 65534;
[[maybe_unused]] constexpr rlim_t kMaxMemoryBytes = 512 * 1024 * 1024;
constexpr rlim_t kMaxNoiseBytes = 64 * 1024;
constexpr int kTimeoutMs = 3000;
/// The agent gives up earlier; this is for when it cannot.
constexpr unsigned kLifeSeconds = 60;

/// Where the answer goes.
int output = STDOUT_FILENO;
/// What the library prints.
int noise = -1;

void Write(std::string_view text) {
  while (!text.empty()) {
    const ssize_t count = write(output, text.data(), text.size());
    if (count < 0 && errno != EINTR) return;
    if (count > 0) text.remove_prefix(static_cast<size_t>(count));
  }
}

// Nothing that the library does at the end of a process is needed.
[[noreturn]] void End(int code, std::string_view text) {
  Write(text);
  _exit(code);
}

[[noreturn]] void Fail(const std::string& what) {
  End(kExitNoBrowser, what + ": " + std::strerror(errno));
}

// The library ends the process where it does not know further, and has then printed why.
void TellWhatWasPrinted() {
  char text[kMaxNoiseBytes];
  const ssize_t count = pread(noise, text, sizeof text, 0);
  if (count > 0) Write(std::string_view(text, static_cast<size_t>(count)));
  _exit(kExitNoBrowser);
}

/// Keeps the answer apart from what the library prints to the standard streams.
void SeparateStreams() {
  output = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  noise = memfd_create("noise", MFD_CLOEXEC);
  if (output < 0 || noise < 0 || dup2(noise, STDOUT_FILENO) < 0 || dup2(noise, STDERR_FILENO) < 0) {
    Fail("streams");
  }
  std::atexit(TellWhatWasPrinted);
}

void Limit(int resource, rlim_t value) {
  const auto which = static_cast<__rlimit_resource_t>(resource);
  rlimit limit{};
  if (getrlimit(which, &limit) != 0) Fail("getrlimit");
  // The agent's own account may be held to less.
  limit.rlim_max = std::min(limit.rlim_max, value);
  limit.rlim_cur = limit.rlim_max;
  if (setrlimit(which, &limit) != 0) Fail("setrlimit");
}

void LimitResources() {
  Limit(RLIMIT_CORE, 0);
  alarm(kLifeSeconds);
  signal(SIGXFSZ, SIG_IGN);
  Limit(RLIMIT_FSIZE, kMaxNoiseBytes);
#ifndef ZEL_SANITIZED
  // Sanitizers reserve more than any machine has.
  Limit(RLIMIT_AS, kMaxMemoryBytes);
#endif
}

/// Root's go with the change of the user; other agents may have been given some as well. What is
/// not permitted does not stay ambient.
void DropCapabilities() {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  const __user_cap_data_struct none[_LINUX_CAPABILITY_U32S_3] = {};
  if (syscall(SYS_capset, &header, none) != 0) Fail("capabilities cannot be dropped");
}

void DropRights() {
  // No account's own smb.conf decides anything, and no home's cache tells of browsers that have
  // gone.
  setenv("HOME", "/nonexistent", 1);
  if (geteuid() == 0 &&
      (setgroups(0, nullptr) != 0 || setgid(kNobody) != 0 || setuid(kNobody) != 0)) {
    Fail("rights cannot be dropped");
  }
  DropCapabilities();
  // Nobody else of the same account looks into its memory.
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 || prctl(PR_SET_DUMPABLE, 0, 0, 0, 0) != 0) {
    Fail("prctl");
  }
}

/// An agent that has ended, or ends, leaves nothing behind. Called after the change of the user,
/// which would take it back.
void EndWithTheAgent() {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  pollfd reader{output, 0, 0};
  if (poll(&reader, 1, 0) > 0 && (reader.revents & POLLERR) != 0) _exit(kExitNoBrowser);
}

/// Nobody in particular asks, whatever the library proposes.
void LogInAnonymously(const char* /*server*/, const char* /*share*/, char* /*workgroup*/,
                      int /*workgroupSize*/, char* user, int userSize, char* password,
                      int passwordSize) {
  if (userSize > 0) user[0] = '\0';
  if (passwordSize > 0) password[0] = '\0';
}

SMBCCTX* MakeContext() {
  SMBCCTX* const context = smbc_new_context();
  if (context == nullptr) Fail("libsmbclient");
  smbc_setDebug(context, 0);
  smbc_setOptionDebugToStderr(context, 1);
  smbc_setOptionUseKerberos(context, 0);
  smbc_setFunctionAuthData(context, LogInAnonymously);
  if (smbc_init_context(context) == nullptr) Fail("libsmbclient");
  // Browsers answer in this protocol only. The machine's smb.conf usually forbids it.
  if (!smbc_setOptionProtocols(context, "NT1", "NT1")) Fail("libsmbclient has no NT1");
  smbc_setTimeout(context, kTimeoutMs);
  return context;
}

bool IsPlain(char character) {
  return IsAsciiAlphanumeric(character) || character == '-' || character == '_';
}

std::string UrlOf(std::string_view domain) {
  constexpr char kDigits[] = "0123456789ABCDEF";
  std::string url = "smb://";
  for (const char character : domain) {
    const auto byte = static_cast<unsigned char>(character);
    if (IsPlain(character)) {
      url += character;
    } else {
      url += {'%', kDigits[byte >> 4], kDigits[byte & 15]};
    }
  }
  return domain.empty() ? url : url + '/';
}

/// The names of the kind `type` below the domain, or of the domains when that is empty; each ends
/// with a NUL. Empty, with `errno` set, when nobody tells any. Ends the process when a list breaks
/// off.
std::string NamesBelow(SMBCCTX* context, std::string_view domain, unsigned type) {
  errno = 0;
  SMBCFILE* const directory = smbc_getFunctionOpendir(context)(context, UrlOf(domain).c_str());
  if (directory == nullptr) return {};
  std::string names;
  const smbc_readdir_fn next = smbc_getFunctionReaddir(context);
  for (;;) {
    // Only this tells an error from the end.
    errno = 0;
    const smbc_dirent* const entry = next(context, directory);
    if (entry == nullptr) break;
    if (entry->smbc_type != type || entry->name[0] == '\0') continue;
    names.append(entry->name).push_back('\0');
  }
  if (errno != 0) Fail("the browser's list breaks off");
  return names;
}

std::string WithErrno(std::string text) {
  return errno == 0 ? text : text + " (" + std::strerror(errno) + ")";
}

[[noreturn]] void ListDomains(SMBCCTX* context) {
  const std::string names = NamesBelow(context, {}, SMBC_WORKGROUP);
  if (!names.empty()) End(0, names);
  End(kExitNoBrowser, WithErrno("no browser answers"));
}

[[noreturn]] void ListServers(SMBCCTX* context, const char* domain) {
  const char* const own = smbc_getWorkgroup(context);
  const std::string name = domain != nullptr ? domain : own != nullptr ? own : "";
  if (name.empty()) End(kExitNoBrowser, "smb.conf names no workgroup");
  // When the name is a server's, its shares are listed, which are of other kinds.
  const std::string names = NamesBelow(context, name, SMBC_SERVER);
  if (!names.empty()) End(0, names);
  // One that is there and says nothing would not say more when it is asked for the domains.
  const bool isSilent = errno == ETIMEDOUT;
  const std::string reason = WithErrno("no browser answers for " + name);
  const bool isUnknown =
      domain != nullptr && !isSilent && !NamesBelow(context, {}, SMBC_WORKGROUP).empty();
  End(isUnknown ? kExitNoSuchDomain : kExitNoBrowser, reason);
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string_view> words(argv, argv + argc);
  const bool isForDomains = argc == 2 && words[1] == "domains";
  if (!isForDomains && !((argc == 2 || argc == 3) && words[1] == "servers")) {
    End(kExitNoBrowser, "usage: zelbrowse domains | servers [DOMAIN]\n");
  }
  SeparateStreams();
  LimitResources();
  DropRights();
  EndWithTheAgent();

  SMBCCTX* const context = MakeContext();
  if (isForDomains) ListDomains(context);
  ListServers(context, argc == 3 ? argv[2] : nullptr);
}
