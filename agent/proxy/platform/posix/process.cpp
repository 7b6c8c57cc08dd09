#include "agent/proxy/process.h"

#include <pwd.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string_view>

namespace {

// The program's own, whatever the others are set to.
constexpr int kOwnSignal = SIGUSR1;

// Those that whoever started the program wants to be ignored stay so ("nohup").
sigset_t StopSignals() {
  sigset_t signals;
  ::sigemptyset(&signals);
  ::sigaddset(&signals, kOwnSignal);
  for (const int number : {SIGTERM, SIGINT, SIGHUP}) {
    struct sigaction action {};
    const bool isIgnored =
        ::sigaction(number, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
    if (!isIgnored) ::sigaddset(&signals, number);
  }
  return signals;
}

std::string_view Variable(const char* name) {
  const char* const value = std::getenv(name);
  return value ? value : "";
}

// "de_AT.UTF-8@euro" is "de-AT". Empty for what names no language.
std::string TagOf(std::string_view locale) {
  std::string tag(locale.substr(0, locale.find_first_of(".@:")));
  if (tag == "C" || tag == "POSIX") return {};
  std::replace(tag.begin(), tag.end(), '_', '-');
  return tag;
}

}  // namespace

const char* const kPlatformName = "linux";

void PrepareProcess() {
  ::signal(SIGPIPE, SIG_IGN);
}

std::vector<std::string> Arguments(int count, char** values) {
  return {values + (count > 0 ? 1 : 0), values + count};
}

std::string UserName() {
  std::vector<char> buffer(4096);
  passwd entry{};
  passwd* found = nullptr;
  const int error = ::getpwuid_r(::geteuid(), &entry, buffer.data(), buffer.size(), &found);
  return error == 0 && found ? found->pw_name : std::to_string(::geteuid());
}

std::string SessionId() {
  const char* const session = std::getenv("XDG_SESSION_ID");
  return session ? session : "";
}

uint32_t ProcessId() {
  return static_cast<uint32_t>(::getpid());
}

// As the system's own programs choose theirs: the first of the locale's variables that is set
// decides, and LANGUAGE, a list, has a say where that is a language.
std::string UserLanguage() {
  std::string_view locale;
  for (const char* const name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
    if (locale.empty()) locale = Variable(name);
  }
  const std::string own = TagOf(locale);
  if (own.empty()) return "en";
  const std::string preferred = TagOf(Variable("LANGUAGE"));
  return preferred.empty() ? own : preferred;
}

// The threads that are made later inherit the mask, so that only `Wait` takes these signals.
StopRequest::StopRequest() {
  const sigset_t signals = StopSignals();
  ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

StopRequest::~StopRequest() = default;

void StopRequest::Wait() {
  const sigset_t signals = StopSignals();
  int number = 0;
  while (::sigwait(&signals, &number) != 0) {
  }
}

void StopRequest::Raise() {
  ::kill(::getpid(), kOwnSignal);
}
