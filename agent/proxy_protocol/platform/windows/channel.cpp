#include "agent/proxy_protocol/channel.h"

#include <windows.h>

#include <sddl.h>

#include <algorithm>
#include <cstddef>
#include <memory>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "agent/libZel/platform/windows/local_memory.h"
#include "agent/libZel/platform/windows/process_account.h"
#include "agent/libZel/platform/windows/unique_handle.h"
#include "agent/libZel/system_error_text.h"
#include "agent/proxy_protocol/platform/windows/pipe_owner.h"
#include "libZel/string.h"

namespace proxy_protocol {

struct StopSignal::Handle {
  UniqueHandle event;
};

namespace {

constexpr std::string_view kPipePrefix = R"(\\.\pipe\)";
constexpr DWORD kBufferBytes = 64 * 1024;
constexpr DWORD kLongestWaitMs = 0x7FFFFFFF;
constexpr DWORD kTryAgainMs = 50;

UniqueHandle MakeEvent() {
  UniqueHandle event(CreateEventW(nullptr, TRUE, FALSE, nullptr));
  if (!event) {
    throw std::system_error(static_cast<int>(GetLastError()), std::system_category(),
                            "cannot make an event");
  }
  return event;
}

Result Failed(const std::string& what, DWORD error) {
  return {Result::Status::kFailed, what + ": " + SystemErrorText(error)};
}

Result TooLate() {
  return {Result::Status::kTooLate, "no answer in time"};
}

DWORD RemainingMs(Deadline deadline) {
  if (deadline == Deadline::max()) return INFINITE;
  using std::chrono::ceil, std::chrono::milliseconds;
  const auto left = ceil<milliseconds>(deadline - std::chrono::steady_clock::now()).count();
  return static_cast<DWORD>(std::clamp<int64_t>(left, 0, kLongestWaitMs));
}

Result Closed() {
  return {Result::Status::kClosed, "the connection was closed"};
}

bool IsEndOfConnection(DWORD error) {
  return error == ERROR_BROKEN_PIPE || error == ERROR_PIPE_NOT_CONNECTED || error == ERROR_NO_DATA;
}

// Waits for an operation that has begun; one that is not done in time is taken back. `stop` and
// `abort`, where they are not null, end the wait.
Result Finish(HANDLE pipe, OVERLAPPED* operation, HANDLE stop, HANDLE abort, Deadline deadline,
              DWORD* transferred) {
  HANDLE watched[] = {operation->hEvent, nullptr, nullptr};
  DWORD count = 1;
  for (const HANDLE event : {stop, abort}) {
    if (event) watched[count++] = event;
  }
  const DWORD answer = WaitForMultipleObjects(count, watched, FALSE, RemainingMs(deadline));
  if (answer != WAIT_OBJECT_0) CancelIoEx(pipe, operation);
  // The system writes into the caller's memory until this returns.
  const bool isDone = GetOverlappedResult(pipe, operation, transferred, TRUE);
  const DWORD error = isDone ? ERROR_SUCCESS : GetLastError();
  const DWORD signalled = answer - WAIT_OBJECT_0;
  if (signalled > 0 && signalled < count) {
    if (watched[signalled] == abort) return Closed();
    return {Result::Status::kStopped, "stopped"};
  }
  if (isDone) return {};
  if (answer == WAIT_TIMEOUT) return TooLate();
  if (IsEndOfConnection(error)) return Closed();
  return Failed("the connection failed", error);
}

class PipeChannel : public Channel {
 public:
  PipeChannel(UniqueHandle pipe, std::shared_ptr<StopSignal> stop)
      : pipe_(std::move(pipe)),
        readEvent_(MakeEvent()),
        writeEvent_(MakeEvent()),
        abortEvent_(MakeEvent()),
        stop_(std::move(stop)) {}

  Result Read(void* bytes, size_t count, Deadline deadline) override {
    return Transfer(static_cast<std::byte*>(bytes), count, readEvent_.Get(), deadline,
                    [this](std::byte* next, DWORD size, OVERLAPPED* operation) {
                      return ReadFile(pipe_.Get(), next, size, nullptr, operation);
                    });
  }

  Result Write(const void* bytes, size_t count, Deadline deadline) override {
    return Transfer(static_cast<const std::byte*>(bytes), count, writeEvent_.Get(), deadline,
                    [this](const std::byte* next, DWORD size, OVERLAPPED* operation) {
                      return WriteFile(pipe_.Get(), next, size, nullptr, operation);
                    });
  }

  void Abort() override { SetEvent(abortEvent_.Get()); }

 private:
  // Reading and writing go on side by side: each has an event of its own.
  template <typename Byte, typename Begin>
  Result Transfer(Byte* next, size_t count, HANDLE event, Deadline deadline, Begin begin) {
    const HANDLE stop = stop_ ? stop_->Get().event.Get() : nullptr;
    while (count > 0) {
      if (WaitForSingleObject(abortEvent_.Get(), 0) == WAIT_OBJECT_0) return Closed();
      OVERLAPPED operation{};
      operation.hEvent = event;
      const auto size = static_cast<DWORD>(std::min<size_t>(count, kBufferBytes));
      if (!begin(next, size, &operation)) {
        const DWORD error = GetLastError();
        if (IsEndOfConnection(error)) return Closed();
        if (error != ERROR_IO_PENDING) return Failed("the connection failed", error);
      }
      DWORD transferred = 0;
      if (Result result =
              Finish(pipe_.Get(), &operation, stop, abortEvent_.Get(), deadline, &transferred);
          !result) {
        return result;
      }
      next += transferred;
      count -= transferred;
    }
    return {};
  }

  const UniqueHandle pipe_;
  const UniqueHandle readEvent_;
  const UniqueHandle writeEvent_;
  const UniqueHandle abortEvent_;
  const std::shared_ptr<StopSignal> stop_;
};

bool IsPipeName(const std::string& pipe) {
  return pipe.size() > kPipePrefix.size() && pipe.starts_with(kPipePrefix) &&
         pipe.find('\0') == pipe.npos;
}

[[noreturn]] void Refuse(const std::string& pipe, const std::string& why) {
  throw std::runtime_error("cannot listen at " + pipe + ": " + why);
}

// The system, administrators and this account may call, nobody else.
LocalMemory<> AccessRule(const std::string& pipe) {
  const std::wstring sid = ProcessAccount().Text();
  if (sid.empty()) Refuse(pipe, "the account of this process is not known");
  const std::wstring text = L"D:P(A;;GA;;;SY)(A;;GA;;;BA)(A;;GA;;;" + sid + L")";
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  if (!ConvertStringSecurityDescriptorToSecurityDescriptorW(text.c_str(), SDDL_REVISION_1,
                                                            &descriptor, nullptr)) {
    Refuse(pipe, SystemErrorText(GetLastError()));
  }
  return LocalMemory<>(descriptor);
}

// Whether a process has made a pipe of that name. The listener's own flag is what decides; Wine
// does not know it.
bool Exists(const std::wstring& name) {
  constexpr DWORD kWaitMs = 1;
  return WaitNamedPipeW(name.c_str(), kWaitMs) || GetLastError() != ERROR_FILE_NOT_FOUND;
}

class PipeListener : public Listener {
 public:
  PipeListener(const std::string& pipe, std::shared_ptr<StopSignal> stop)
      : name_(ZelString(pipe).GetTCHAR()),
        access_(AccessRule(pipe)),
        event_(MakeEvent()),
        stop_(std::move(stop)),
        next_(MakeInstance(FILE_FLAG_FIRST_PIPE_INSTANCE)) {
    if (next_) return;
    const DWORD error = GetLastError();
    const bool isTaken = error == ERROR_ACCESS_DENIED || error == ERROR_PIPE_BUSY;
    Refuse(pipe, isTaken ? "a proxy is running already" : SystemErrorText(error));
  }

  // Somebody can connect at any time: the next instance is there before this one is handed out.
  Connected Accept() override {
    if (!next_) next_ = MakeInstance(0);
    if (!next_) return {nullptr, Failed("making a pipe", GetLastError())};

    Result result = WaitForCaller();
    if (result.status == Result::Status::kStopped) return {nullptr, std::move(result)};
    UniqueHandle connected = std::exchange(next_, MakeInstance(0));
    if (!result) return {nullptr, std::move(result)};
    return {std::make_unique<PipeChannel>(std::move(connected), stop_), {}};
  }

 private:
  UniqueHandle MakeInstance(DWORD flags) const {
    SECURITY_ATTRIBUTES attributes{sizeof attributes, access_.get(), FALSE};
    return UniqueHandle(CreateNamedPipeW(
        name_.c_str(), PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED | flags,
        PIPE_TYPE_BYTE | PIPE_READMODE_BYTE | PIPE_WAIT | PIPE_REJECT_REMOTE_CLIENTS,
        PIPE_UNLIMITED_INSTANCES, kBufferBytes, kBufferBytes, 0, &attributes));
  }

  Result WaitForCaller() const {
    OVERLAPPED operation{};
    operation.hEvent = event_.Get();
    if (!ConnectNamedPipe(next_.Get(), &operation)) {
      const DWORD error = GetLastError();
      if (error == ERROR_PIPE_CONNECTED) return {};
      if (error != ERROR_IO_PENDING) return Failed("taking a connection", error);
    }
    DWORD ignored = 0;
    return Finish(next_.Get(), &operation, stop_->Get().event.Get(), nullptr, Deadline::max(),
                  &ignored);
  }

  const std::wstring name_;
  const LocalMemory<> access_;
  const UniqueHandle event_;
  const std::shared_ptr<StopSignal> stop_;
  UniqueHandle next_;
};

// Anybody may have made a pipe of that name before the one whose it is.
Connected Trusted(const std::string& pipe, UniqueHandle handle, std::shared_ptr<StopSignal> stop) {
  const std::string why = WhyNotHeard(pipe, OwnerOf(handle.Get()));
  if (!why.empty()) return {nullptr, {Result::Status::kFailed, why}};
  return {std::make_unique<PipeChannel>(std::move(handle), std::move(stop)), {}};
}

}  // namespace

StopSignal::StopSignal() : handle_(new Handle{MakeEvent()}) {}

StopSignal::~StopSignal() = default;

void StopSignal::Raise() {
  SetEvent(handle_->event.Get());
}

bool StopSignal::Wait(Deadline deadline) const {
  return WaitForSingleObject(handle_->event.Get(), RemainingMs(deadline)) == WAIT_OBJECT_0;
}

Connected Connect(const std::string& pipe, Deadline deadline, std::shared_ptr<StopSignal> stop) {
  if (!IsPipeName(pipe)) {
    return {nullptr, {Result::Status::kFailed, R"(the name does not begin with \\.\pipe\)"}};
  }
  const std::wstring name = ZelString(pipe).GetTCHAR();
  for (;;) {
    // The listener may learn who calls; it may not act as the caller.
    UniqueHandle handle(CreateFileW(
        name.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
        FILE_FLAG_OVERLAPPED | SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION, nullptr));
    if (handle) return Trusted(pipe, std::move(handle), std::move(stop));
    const DWORD error = GetLastError();
    if (error != ERROR_PIPE_BUSY) return {nullptr, Failed("no proxy", error)};
    if (stop && stop->Wait(After(std::chrono::milliseconds(0))))
      return {nullptr, {Result::Status::kStopped, "stopped"}};
    const DWORD left = RemainingMs(deadline);
    if (left == 0) return {nullptr, TooLate()};
    // The system watches nothing else meanwhile.
    WaitNamedPipeW(name.c_str(), std::min(left, kTryAgainMs));
  }
}

std::unique_ptr<Listener> Listen(const std::string& pipe, std::shared_ptr<StopSignal> stop,
                                 std::chrono::milliseconds /*lookInterval*/) {
  if (!IsPipeName(pipe)) Refuse(pipe, R"(the name does not begin with \\.\pipe\)");
  if (Exists(ZelString(pipe).GetTCHAR())) Refuse(pipe, "a proxy is running already");
  return std::make_unique<PipeListener>(pipe, std::move(stop));
}

std::string DefaultPipe() {
  DWORD session = 0;
  if (!ProcessIdToSessionId(GetCurrentProcessId(), &session))
    throw std::runtime_error("the session is not known: " + SystemErrorText(GetLastError()));
  return std::string(kPipePrefix) + "zelproxy-" + std::to_string(session);
}

}  // namespace proxy_protocol
