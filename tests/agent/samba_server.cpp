#include "tests/agent/samba_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <fstream>
#include <functional>
#include <random>
#include <stdexcept>
#include <system_error>
#include <thread>

namespace {

constexpr uint16_t kPort = 139;
constexpr std::chrono::seconds kStartLimit{30};
constexpr std::chrono::seconds kStopLimit{10};
constexpr std::chrono::seconds kLogLimit{10};

/// Whom the user is on this machine; there she needs no account.
constexpr const char* kAccount = "nobody";

constexpr const char* kDirectories[] = {"private", "state",   "lock",  "pid",
                                        "cache",   "ncalrpc", "shared"};

class Socket {
 public:
  Socket() : number_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {}
  ~Socket() { close(number_); }
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;
  int Get() const { return number_; }

 private:
  const int number_;
};

sockaddr_in PortOf(uint32_t address) {
  sockaddr_in place = {};
  place.sin_family = AF_INET;
  place.sin_port = htons(kPort);
  place.sin_addr.s_addr = htonl(address);
  return place;
}

/// Zero, or why a server could not listen there.
int ListeningError(uint32_t address) {
  const Socket socket;
  const int yes = 1;
  setsockopt(socket.Get(), SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  const sockaddr_in place = PortOf(address);
  const auto* const general = reinterpret_cast<const sockaddr*>(&place);
  return bind(socket.Get(), general, sizeof place) == 0 && listen(socket.Get(), 1) == 0 ? 0 : errno;
}

uint32_t PickAddress() {
  // Programs of a machine have theirs at the beginning of 127.0.0.0/8.
  std::random_device random;
  std::uniform_int_distribution<uint32_t> numbers(0x7F400001, 0x7FFFFFFD);
  int error = 0;
  for (int attempt = 0; attempt < 10; ++attempt) {
    const uint32_t address = numbers(random);
    error = ListeningError(address);
    if (error == 0) return address;
  }
  if (error == EADDRINUSE)
    throw std::runtime_error("another server has port 139 of all addresses (ss -ltnp shows it)");
  throw std::runtime_error("no server can listen on port 139: " +
                           std::generic_category().message(error));
}

bool WaitUntil(const std::function<bool()>& condition, std::chrono::seconds limit) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

size_t CountOf(std::string_view text, const std::string& all) {
  size_t count = 0;
  for (size_t at = all.find(text); at != std::string::npos; at = all.find(text, at + 1)) ++count;
  return count;
}

void AppendShare(const std::string& name, const std::string& path, const char* setting,
                 std::ostream& text) {
  text << "[" << name << "]\npath = " << path << "\nread only = no\n" << setting << "\n";
}

}  // namespace

SambaServer::SambaServer(const std::vector<std::string>& settings) : address_(PickAddress()) {
  for (const char* const name : kDirectories)
    std::filesystem::create_directory(directory_.Native() / name);
  std::filesystem::permissions(directory_.Native(), std::filesystem::perms(0755));
  WriteConfiguration(settings);
  AddUser();

  process_ = Launch("smbd", {"-F", "--no-process-group", "-s", PathOf("smb.conf")}, "/dev/null");
  bool hasEnded = false;
  WaitUntil(
      [&] {
        hasEnded = waitpid(process_, nullptr, WNOHANG) != 0;
        return hasEnded || IsAnswering();
      },
      kStartLimit);
  if (!hasEnded && IsAnswering()) return;
  const std::string output = ReadFile(PathOf("output")) + Log();
  if (hasEnded) process_ = 0;
  Stop();
  throw std::runtime_error("smbd did not start: " + output);
}

SambaServer::~SambaServer() {
  Stop();
}

// The server's processes, one for each connection and some more, make one group.
void SambaServer::Stop() {
  if (process_ == 0) return;
  kill(process_, SIGTERM);
  const bool hasEnded =
      WaitUntil([&] { return waitpid(process_, nullptr, WNOHANG) != 0; }, kStopLimit);
  killpg(process_, SIGKILL);
  if (!hasEnded) waitpid(process_, nullptr, 0);
  process_ = 0;
}

std::string SambaServer::DottedAddress() const {
  const in_addr address = {htonl(address_)};
  char text[INET_ADDRSTRLEN] = {};
  return inet_ntop(AF_INET, &address, text, sizeof text);
}

std::string SambaServer::Log() const {
  return ReadFile(PathOf("log"));
}

bool SambaServer::WaitForLog(std::string_view text, size_t count) const {
  return WaitUntil([&] { return CountOf(text, Log()) >= count; }, kLogLimit);
}

void SambaServer::WriteConfiguration(const std::vector<std::string>& settings) const {
  WriteFile(PathOf("users"), std::string(kAccount) + " = " + kUser + "\n");
  std::ofstream text(PathOf("smb.conf"));
  text << "[global]\nworkgroup = ZELTEST\nnetbios name = ZELFILES\n"
       << "server role = standalone server\n"
       << "interfaces = " << DottedAddress() << "/8\nbind interfaces only = yes\n"
       << "smb ports = " << kPort << "\n"
       << "private dir = " << PathOf("private") << "\n"
       << "state directory = " << PathOf("state") << "\n"
       << "lock directory = " << PathOf("lock") << "\n"
       << "pid directory = " << PathOf("pid") << "\n"
       << "cache directory = " << PathOf("cache") << "\n"
       << "ncalrpc dir = " << PathOf("ncalrpc")
       << "\n"
       // What clients ask for, by name.
       << "log file = " << PathOf("log") << "\nlog level = 1 auth:3 smb2:10\n"
       << "max log size = 0\ndebug timestamp = no\n"
       << "passdb backend = tdbsam\nusername map = " << PathOf("users") << "\n"
       << "guest account = " << kAccount << "\nmap to guest = never\n"
       << "load printers = no\nprinting = bsd\nprintcap name = /dev/null\n"
       << "disable spoolss = yes\n";
  for (const std::string& line : settings) text << line << "\n";
  AppendShare(kShare, PathOf("shared"), "", text);
  AppendShare(kOpenShare, PathOf("shared"), "guest ok = yes", text);
  AppendShare(kClosedShare, PathOf("shared"), "valid users = root", text);
  AppendShare(kSealedShare, PathOf("shared"), "smb encrypt = required", text);
  AppendShare(kUnicodeShare, PathOf("shared"), "", text);
}

void SambaServer::AddUser() const {
  WriteFile(PathOf("typed"), std::string(kPassword) + "\n" + kPassword + "\n");
  const pid_t process =
      Launch("smbpasswd", {"-c", PathOf("smb.conf"), "-L", "-a", "-s", kAccount}, PathOf("typed"));
  int status = 0;
  if (waitpid(process, &status, 0) != process || status != 0)
    throw std::runtime_error("smbpasswd failed: " + ReadFile(PathOf("output")));
}

bool SambaServer::IsAnswering() const {
  const Socket socket;
  const sockaddr_in place = PortOf(address_);
  const auto* const general = reinterpret_cast<const sockaddr*>(&place);
  return connect(socket.Get(), general, sizeof place) == 0;
}

pid_t SambaServer::Launch(const std::string& program, const std::vector<std::string>& arguments,
                          const std::string& input) const {
  // What the child needs is prepared here: other threads' locks may be held in it for ever.
  std::vector<char*> words = {const_cast<char*>(program.c_str())};
  for (const std::string& argument : arguments)
    words.push_back(const_cast<char*>(argument.c_str()));
  words.push_back(nullptr);
  char locale[] = "LC_ALL=C.UTF-8";
  char path[] = "PATH=/usr/sbin:/usr/bin:/sbin:/bin";
  char* environment[] = {locale, path, nullptr};
  const int reading = open(input.c_str(), O_RDONLY | O_CLOEXEC);
  const int writing =
      open(PathOf("output").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  const pid_t parent = getpid();
  const std::string file = std::filesystem::exists("/usr/sbin/" + program) ? "/usr/sbin/" + program
                                                                           : "/usr/bin/" + program;

  const pid_t child = fork();
  if (child < 0) throw std::runtime_error("cannot start " + program);
  if (child == 0) {
    dup2(reading, STDIN_FILENO);
    dup2(writing, STDOUT_FILENO);
    dup2(writing, STDERR_FILENO);
    setpgid(0, 0);
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() == parent && chdir("/") == 0) execve(file.c_str(), words.data(), environment);
    _exit(127);
  }
  setpgid(child, child);
  close(reading);
  close(writing);
  return child;
}
