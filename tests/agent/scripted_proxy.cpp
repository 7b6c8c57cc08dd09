#include "tests/agent/scripted_proxy.h"

#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <utility>

#include "agent/proxy_protocol/frame.h"

using namespace proxy_protocol;
using std::chrono::seconds;

namespace {

constexpr seconds kLong{60};

uint32_t NumberOf(const Message& request) {
  const std::string* const number = request.Find("dialog");
  return number ? static_cast<uint32_t>(std::stoul(*number)) : 0;
}

bool IsSet(const Message& request, const char* field) {
  const std::string* const value = request.Find(field);
  return value && *value == "1";
}

Message With(const Message& request, std::vector<Field> fields) {
  Message reply = ReplyTo(request);
  reply.fields = std::move(fields);
  return reply;
}

}  // namespace

ScriptedProxy::Script ScriptedProxy::Refuses(const std::string& request) {
  return [request](const Message& asked) -> std::optional<Message> {
    if (asked.name != request) return std::nullopt;
    return FailureOf(asked, "the script says so");
  };
}

ScriptedProxy::Script ScriptedProxy::Says(const std::string& request, std::vector<Field> fields) {
  return [request, fields](const Message& asked) -> std::optional<Message> {
    if (asked.name != request) return std::nullopt;
    return With(asked, fields);
  };
}

ScriptedProxy::ScriptedProxy(const std::string& pipe, Script script, int processId)
    : script_(std::move(script)),
      processId_(processId),
      stop_(std::make_shared<StopSignal>()),
      accepting_([this, listener = Listen(pipe, stop_)] {
        for (;;) {
          Connected connected = listener->Accept();
          if (connected.result.status == Result::Status::kStopped) return;
          if (!connected.channel) continue;
          const std::lock_guard lock(mutex_);
          Connection& connection = connections_.emplace_back(std::move(connected.channel));
          threads_.emplace_back([this, &connection] { Serve(connection); });
        }
      }) {}

ScriptedProxy::~ScriptedProxy() {
  stop_->Raise();
  accepting_.join();
  for (std::thread& thread : threads_) thread.join();
}

void ScriptedProxy::End(uint32_t dialog, unsigned int button) {
  const std::lock_guard lock(mutex_);
  EndDialog(dialogs_.at(dialog), button);
}

void ScriptedProxy::ForgetShows() {
  const std::lock_guard lock(mutex_);
  for (auto& [number, dialog] : dialogs_) dialog.show.reset();
}

void ScriptedProxy::Hang() {
  const std::lock_guard lock(mutex_);
  hangs_ = true;
}

void ScriptedProxy::DieAt(size_t request, Death death) {
  const std::lock_guard lock(mutex_);
  lastRequest_ = requests_.size() + request;
  death_ = death;
}

bool ScriptedProxy::IsOpen(uint32_t dialog) const {
  const std::lock_guard lock(mutex_);
  const auto found = dialogs_.find(dialog);
  return found != dialogs_.end() && found->second.isOpen;
}

bool ScriptedProxy::IsShown(uint32_t dialog) const {
  const std::lock_guard lock(mutex_);
  return IsOpen(dialog) && dialogs_.at(dialog).isShown;
}

bool ScriptedProxy::HasLock() const {
  const std::lock_guard lock(mutex_);
  return std::ranges::any_of(connections_, &Connection::hasLock);
}

size_t ScriptedProxy::Connections() const {
  const std::lock_guard lock(mutex_);
  return static_cast<size_t>(std::ranges::count(connections_, true, &Connection::IsOpen));
}

size_t ScriptedProxy::Count(const std::string& request) const {
  const std::lock_guard lock(mutex_);
  return static_cast<size_t>(std::ranges::count(requests_, request, &Message::name));
}

size_t ScriptedProxy::CountAll() const {
  const std::lock_guard lock(mutex_);
  return requests_.size();
}

Message ScriptedProxy::Last(const std::string& request) const {
  const std::lock_guard lock(mutex_);
  const auto found = std::find_if(requests_.rbegin(), requests_.rend(),
                                  [&](const Message& one) { return one.name == request; });
  if (found == requests_.rend()) throw std::runtime_error("nobody has asked for " + request);
  return *found;
}

bool ScriptedProxy::WaitUntil(const std::function<bool()>& holds) const {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, kLong, holds);
}

void ScriptedProxy::Serve(Connection& connection) {
  for (;;) {
    const Received received = ReceiveNext(*connection.channel, Deadline::max(), kLong);
    if (!received.result) break;
    Answer(connection, received.message);
  }
  const std::lock_guard lock(mutex_);
  Forget(connection);
  changed_.notify_all();
}

void ScriptedProxy::Answer(Connection& connection, const Message& request) {
  const std::lock_guard lock(mutex_);
  if (isDead_) return;
  requests_.push_back(request);
  std::optional<Message> reply;
  if (!hangs_) {
    reply = script_ ? script_(request) : std::nullopt;
    if (!reply) reply = Handle(connection, request);
  }
  if (requests_.size() == lastRequest_) {
    Die(connection, reply);
  } else if (reply) {
    Reply(connection, *reply);
  }
  changed_.notify_all();
}

void ScriptedProxy::Die(Connection& connection, const std::optional<Message>& reply) {
  const std::string frame = reply ? FrameOf(FormatMessage(*reply)) : std::string();
  const size_t sent = death_ == Death::kBeforeReply   ? 0
                      : death_ == Death::kWithinReply ? frame.size() / 2
                                                      : frame.size();
  connection.channel->Write(frame.data(), sent, After(kLong));
  isDead_ = true;
  stop_->Raise();
}

std::optional<Message> ScriptedProxy::Handle(Connection& connection, const Message& request) {
  if (request.name == "session") {
    return With(request, {{"userName", "alice"},
                          {"processId", std::to_string(processId_)},
                          {"startedAt", "1700000000"}});
  }
  if (request.name == "lock") connection.hasLock = true;
  if (request.name == "unlock") {
    for (Connection& other : connections_) other.hasLock = false;
  }
  if (request.name == "lock-text" && !HasLock()) return FailureOf(request, "not locked");
  if (request.name == "absence") return With(request, {{"idleMs", "0"}, {"screenLocked", "no"}});
  if (request.name.starts_with("dialog-")) return HandleDialog(connection, request);
  return ReplyTo(request);
}

std::optional<Message> ScriptedProxy::HandleDialog(Connection& connection, const Message& request) {
  if (request.name == "dialog-create") {
    const auto number = static_cast<uint32_t>(dialogs_.size() + 1);
    dialogs_[number].owner = &connection;
    return With(request, {{"dialog", std::to_string(number)}});
  }
  const auto found = dialogs_.find(NumberOf(request));
  if (request.name == "dialog-close") {
    if (found != dialogs_.end()) EndDialog(found->second, 0);
    return ReplyTo(request);
  }
  if (found == dialogs_.end()) return FailureOf(request, "there is no such dialog");
  Dialog& dialog = found->second;
  if (request.name == "dialog-state") {
    return With(request, {{"isOpen", dialog.isOpen ? "yes" : "no"},
                          {"button", std::to_string(dialog.button)}});
  }
  dialog.isShown = true;
  if (!IsSet(request, "wait")) return ReplyTo(request);
  if (!dialog.isOpen) return With(request, {{"button", std::to_string(dialog.button)}});
  dialog.show = request;
  return std::nullopt;
}

void ScriptedProxy::EndDialog(Dialog& dialog, unsigned int button) {
  if (!std::exchange(dialog.isOpen, false)) return;
  dialog.button = button;
  if (dialog.show) Reply(*dialog.owner, With(*dialog.show, {{"button", std::to_string(button)}}));
  dialog.show.reset();
  changed_.notify_all();
}

void ScriptedProxy::Forget(Connection& connection) {
  connection.channel.reset();
  connection.hasLock = false;
  for (auto& [number, dialog] : dialogs_) {
    if (dialog.owner != &connection) continue;
    dialog.isOpen = false;
    dialog.show.reset();
  }
}

void ScriptedProxy::Reply(Connection& connection, const Message& reply) {
  if (connection.channel) Send(*connection.channel, reply, After(kLong));
}
