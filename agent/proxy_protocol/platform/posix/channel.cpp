#include "agent/proxy_protocol/channel.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "agent/libZel/platform/posix/unique_fd.h"
#include "agent/libZel/system_error_text.h"

namespace proxy_protocol {

struct StopSignal::Handle {
  UniqueFd event;
};

namespace {

constexpr int kBacklog = 64;
constexpr int kTryAgainMs = 10;

Result Failed(const std::string& what, int error) {
  return {Result::Status::kFailed, what + ": " + SystemErrorText(error)};
}

int RemainingMs(Deadline deadline) {
  using std::chrono::ceil, std::chrono::milliseconds;
  const auto left = ceil<milliseconds>(deadline - std::chrono::steady_clock::now()).count();
  return static_cast<int>(std::clamp<int64_t>(left, 0, INT_MAX));
}

// Waits until the descriptor is ready for `events`, the deadline passes or `stop` (where >= 0) is
// raised.
Result WaitFor(int descriptor, short events, int stop, Deadline deadline) {
  pollfd watched[] = {{descriptor, events, 0}, {stop, POLLIN, 0}};
  for (;;) {
    const int timeoutMs = deadline == Deadline::max() ? -1 : RemainingMs(deadline);
    const int ready = ::poll(watched, 2, timeoutMs);
    if (ready < 0 && errno != EINTR) return Failed("waiting", errno);
    if (ready > 0 && watched[1].revents != 0) return {Result::Status::kStopped, "stopped"};
    if (ready > 0) return {};
    if (ready == 0 && RemainingMs(deadline) == 0)
      return {Result::Status::kTooLate, "no answer in time"};
  }
}

class SocketChannel : public Channel {
 public:
  SocketChannel(UniqueFd socket, std::shared_ptr<StopSignal> stop)
      : socket_(std::move(socket)), stop_(std::move(stop)) {}

  Result Read(void* bytes, size_t count, Deadline deadline) override {
    auto* next = static_cast<char*>(bytes);
    while (count > 0) {
      if (Result ready = Ready(POLLIN, deadline); !ready) return ready;
      const ssize_t read = ::recv(socket_.Get(), next, count, 0);
      if (read == 0 || (read < 0 && errno == ECONNRESET)) return Closed();
      if (read < 0 && IsFatal(errno)) return Failed("reading", errno);
      if (read < 0) continue;
      next += read;
      count -= static_cast<size_t>(read);
    }
    return {};
  }

  Result Write(const void* bytes, size_t count, Deadline deadline) override {
    const auto* next = static_cast<const char*>(bytes);
    while (count > 0) {
      if (Result ready = Ready(POLLOUT, deadline); !ready) return ready;
      const ssize_t written = ::send(socket_.Get(), next, count, MSG_NOSIGNAL);
      if (written < 0 && (errno == EPIPE || errno == ECONNRESET)) return Closed();
      if (written < 0 && IsFatal(errno)) return Failed("writing", errno);
      if (written < 0) continue;
      next += written;
      count -= static_cast<size_t>(written);
    }
    return {};
  }

  void Abort() override { ::shutdown(socket_.Get(), SHUT_RDWR); }

 private:
  static bool IsFatal(int error) {
    return error != EINTR && error != EAGAIN && error != EWOULDBLOCK;
  }
  static Result Closed() { return {Result::Status::kClosed, "the connection was closed"}; }
  Result Ready(short events, Deadline deadline) const {
    return WaitFor(socket_.Get(), events, stop_ ? stop_->Get().event.Get() : -1, deadline);
  }

  const UniqueFd socket_;
  const std::shared_ptr<StopSignal> stop_;
};

std::optional<sockaddr_un> AddressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const bool isAbsolute = path.starts_with('/') && path.find('\0') == path.npos;
  if (!isAbsolute || path.size() >= sizeof address.sun_path) return std::nullopt;
  std::memcpy(address.sun_path, path.data(), path.size());
  return address;
}

const sockaddr* Generic(const sockaddr_un& address) {
  return reinterpret_cast<const sockaddr*>(&address);
}

UniqueFd MakeSocket() {
  return UniqueFd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

// 0 or the error, ECANCELED when `stop` (where >= 0) is raised. A full queue of the listener is
// waited for.
int ConnectSocket(int socket, const sockaddr_un& address, int stop, Deadline deadline) {
  for (;;) {
    if (::connect(socket, Generic(address), sizeof address) == 0) return 0;
    if (errno == EINTR) continue;
    if (errno != EAGAIN) return errno;
    const int left = RemainingMs(deadline);
    if (left == 0) return ETIMEDOUT;
    pollfd watched{stop, POLLIN, 0};
    if (::poll(&watched, 1, std::min(left, kTryAgainMs)) > 0) return ECANCELED;
  }
}

// The account at the other end, at the time when it connected or began to listen.
std::optional<uid_t> PeerOf(int socket) {
  ucred peer{};
  socklen_t size = sizeof peer;
  if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) return std::nullopt;
  return peer.uid;
}

bool IsSameFile(const struct stat& one, const struct stat& other) {
  return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

// Whether `path` names this file; false when that cannot be told.
bool Names(const std::string& path, const struct stat& file) {
  struct stat now {};
  return ::lstat(path.c_str(), &now) == 0 && IsSameFile(now, file);
}

[[noreturn]] void Refuse(const std::string& path, const std::string& why) {
  throw std::runtime_error("cannot listen at " + path + ": " + why);
}

[[noreturn]] void RefuseSecond(const std::string& path) {
  Refuse(path, "a proxy is running already");
}

// Held while a process listens, so that two which start at once do not both take over a socket that
// was left behind.
class ListenLock {
 public:
  explicit ListenLock(const std::string& socket) : path_(socket + ".lock") {
    while (!Take(socket)) {
    }
  }
  ~ListenLock() {
    if (IsNamed()) ::unlink(path_.c_str());
  }
  ListenLock(const ListenLock&) = delete;
  ListenLock& operator=(const ListenLock&) = delete;

 private:
  // False when the file was removed by its last holder meanwhile.
  bool Take(const std::string& socket) {
    file_ = UniqueFd(
        ::open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600));
    if (!file_) Refuse(socket, path_ + ": " + SystemErrorText(errno));
    if (::flock(file_.Get(), LOCK_EX | LOCK_NB) != 0) {
      if (errno == EWOULDBLOCK) RefuseSecond(socket);
      Refuse(socket, path_ + ": " + SystemErrorText(errno));
    }
    return IsNamed();
  }

  // Others may have removed the file, and another process may have made its own.
  bool IsNamed() const {
    struct stat held {};
    return ::fstat(file_.Get(), &held) == 0 && Names(path_, held);
  }

  const std::string path_;
  UniqueFd file_;
};

// Removes a socket that nobody answers at any more.
void RemoveStale(const std::string& path, const sockaddr_un& address) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0) return;
  if (!S_ISSOCK(status.st_mode)) Refuse(path, "something else stands there");
  if (status.st_uid != ::geteuid()) Refuse(path, "the socket there belongs to somebody else");
  const UniqueFd socket = MakeSocket();
  if (!socket) Refuse(path, SystemErrorText(errno));
  const int error = ConnectSocket(socket.Get(), address, -1, std::chrono::steady_clock::now());
  if (error == 0 || error == ETIMEDOUT) RefuseSecond(path);
  if (error != ECONNREFUSED) Refuse(path, SystemErrorText(error));
  if (::unlink(path.c_str()) != 0) Refuse(path, SystemErrorText(errno));
}

class SocketListener : public Listener {
 public:
  SocketListener(const std::string& path, const sockaddr_un& address,
                 std::shared_ptr<StopSignal> stop, std::chrono::milliseconds lookInterval)
      : path_(path), lock_(path), stop_(std::move(stop)), lookInterval_(lookInterval) {
    RemoveStale(path, address);
    socket_ = MakeSocket();
    // The file takes over the mode of its socket: at no moment may others connect, and the umask,
    // which is the whole process's, stays as it is.
    if (!socket_ || ::fchmod(socket_.Get(), 0600) != 0 ||
        ::bind(socket_.Get(), Generic(address), sizeof address) != 0) {
      Refuse(path, SystemErrorText(errno));
    }
    const bool isListening =
        ::lstat(path.c_str(), &file_) == 0 && ::listen(socket_.Get(), kBacklog) == 0;
    if (isListening) return;
    const int error = errno;
    ::unlink(path.c_str());
    Refuse(path, SystemErrorText(error));
  }

  ~SocketListener() override {
    if (Names(path_, file_)) ::unlink(path_.c_str());
  }

  Connected Accept() override {
    const Result ready = WaitForCaller();
    if (!ready) return {nullptr, ready};
    UniqueFd socket(::accept4(socket_.Get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!socket) return {nullptr, Failed("taking a connection", errno)};
    const std::optional<uid_t> peer = PeerOf(socket.Get());
    if (!peer || (*peer != 0 && *peer != ::geteuid())) {
      const std::string who = peer ? std::to_string(*peer) : "unknown";
      return {nullptr, {Result::Status::kFailed, "a caller was turned away: user " + who}};
    }
    return {std::make_unique<SocketChannel>(std::move(socket), stop_), {}};
  }

 private:
  // The system does not tell who listens that the socket's file has gone.
  Result WaitForCaller() const {
    for (;;) {
      Result ready = WaitFor(socket_.Get(), POLLIN, stop_->Get().event.Get(), After(lookInterval_));
      if (ready.status != Result::Status::kTooLate) return ready;
      if (IsGone()) return {Result::Status::kClosed, path_ + " was removed or replaced"};
    }
  }

  bool IsGone() const {
    struct stat now {};
    if (::lstat(path_.c_str(), &now) == 0) return !IsSameFile(now, file_);
    return errno == ENOENT || errno == ENOTDIR;
  }

  const std::string path_;
  const ListenLock lock_;
  const std::shared_ptr<StopSignal> stop_;
  const std::chrono::milliseconds lookInterval_;
  UniqueFd socket_;
  struct stat file_ {};
};

}  // namespace

StopSignal::StopSignal() : handle_(new Handle{UniqueFd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))}) {
  if (!handle_->event)
    throw std::system_error(errno, std::generic_category(), "cannot make an event");
}

StopSignal::~StopSignal() = default;

void StopSignal::Raise() {
  const uint64_t one = 1;
  [[maybe_unused]] const ssize_t written = ::write(handle_->event.Get(), &one, sizeof one);
}

bool StopSignal::Wait(Deadline deadline) const {
  return static_cast<bool>(WaitFor(handle_->event.Get(), POLLIN, -1, deadline));
}

Connected Connect(const std::string& pipe, Deadline deadline, std::shared_ptr<StopSignal> stop) {
  const std::optional<sockaddr_un> address = AddressOf(pipe);
  if (!address) return {nullptr, {Result::Status::kFailed, "the name is too long or no full path"}};
  struct stat file {};
  if (::lstat(pipe.c_str(), &file) != 0) return {nullptr, Failed("no proxy", errno)};
  if (!S_ISSOCK(file.st_mode)) return {nullptr, {Result::Status::kFailed, "it is no socket"}};

  UniqueFd socket = MakeSocket();
  if (!socket) return {nullptr, Failed("making a socket", errno)};
  const int error =
      ConnectSocket(socket.Get(), *address, stop ? stop->Get().event.Get() : -1, deadline);
  if (error == ECANCELED) return {nullptr, {Result::Status::kStopped, "stopped"}};
  if (error == ETIMEDOUT) return {nullptr, {Result::Status::kTooLate, "no answer in time"}};
  if (error != 0) return {nullptr, Failed("connecting", error)};
  if (PeerOf(socket.Get()) != file.st_uid) {
    return {nullptr, {Result::Status::kFailed, "the listener is not the owner of the socket"}};
  }
  return {std::make_unique<SocketChannel>(std::move(socket), std::move(stop)), {}};
}

std::unique_ptr<Listener> Listen(const std::string& pipe, std::shared_ptr<StopSignal> stop,
                                 std::chrono::milliseconds lookInterval) {
  const std::optional<sockaddr_un> address = AddressOf(pipe);
  if (!address) Refuse(pipe, "the name is too long or no full path");
  return std::make_unique<SocketListener>(pipe, *address, std::move(stop), lookInterval);
}

std::string DefaultPipe() {
  const char* const configured = std::getenv("XDG_RUNTIME_DIR");
  const std::string directory =
      configured && *configured ? configured : "/run/user/" + std::to_string(::geteuid());
  struct stat status {};
  if (::stat(directory.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
    throw std::runtime_error("there is no run-time directory " + directory +
                             ": nobody is logged on, or --pipe must name a place");
  }
  const bool isPrivate = status.st_uid == ::geteuid() && (status.st_mode & 0022) == 0;
  if (!isPrivate) throw std::runtime_error("others may write the run-time directory " + directory);
  return directory + "/zelproxy.sock";
}

}  // namespace proxy_protocol
