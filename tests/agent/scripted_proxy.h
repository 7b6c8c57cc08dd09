#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "agent/proxy_protocol/channel.h"
#include "agent/proxy_protocol/message.h"

/// A stand-in for the user-session proxy that shows nothing: a test tells what the person does and
/// what the proxy says instead of the truth. Dialogs are numbered from 1 and belong to connections.
class ScriptedProxy {
 public:
  using Message = proxy_protocol::Message;
  /// What is said to a request instead of the usual; none for the usual.
  using Script = std::function<std::optional<Message>(const Message& request)>;
  /// The script that answers these requests with this code, or with these fields.
  static Script Refuses(const std::string& request);
  static Script Says(const std::string& request, std::vector<proxy_protocol::Field> fields);

  explicit ScriptedProxy(const std::string& pipe, Script script = nullptr, int processId = 42);
  /// Ends all connections.
  ~ScriptedProxy();
  ScriptedProxy(const ScriptedProxy&) = delete;
  ScriptedProxy& operator=(const ScriptedProxy&) = delete;

  /// The person uses a button, or the dialog ends by itself (0).
  void End(uint32_t dialog, unsigned int button);
  /// `Show` is not answered any more.
  void ForgetShows();
  /// From now on requests are taken and not answered.
  void Hang();
  /// How much of its last reply a proxy sends that is killed.
  enum class Death { kBeforeReply, kWithinReply, kAfterReply };
  /// Has it end with all its connections at a request to come, the first being 1.
  void DieAt(size_t request, Death death);

  bool IsOpen(uint32_t dialog) const;
  bool IsShown(uint32_t dialog) const;
  bool HasLock() const;
  size_t Connections() const;
  /// How often a request was made, and the last one.
  size_t Count(const std::string& request) const;
  size_t CountAll() const;
  Message Last(const std::string& request) const;
  /// Waits until it holds; false after a time that no healthy machine needs.
  bool WaitUntil(const std::function<bool()>& holds) const;

 private:
  struct Connection {
    explicit Connection(std::unique_ptr<proxy_protocol::Channel> taken)
        : channel(std::move(taken)) {}
    bool IsOpen() const { return channel != nullptr; }
    /// Null when it has ended. Read by its thread, written to with the mutex.
    std::unique_ptr<proxy_protocol::Channel> channel;
    bool hasLock = false;
  };
  struct Dialog {
    Connection* owner = nullptr;
    bool isOpen = true;
    bool isShown = false;
    unsigned int button = 0;
    std::optional<Message> show;
  };

  void Serve(Connection& connection);
  void Answer(Connection& connection, const Message& request);
  void Die(Connection& connection, const std::optional<Message>& reply);
  std::optional<Message> Handle(Connection& connection, const Message& request);
  std::optional<Message> HandleDialog(Connection& connection, const Message& request);
  void EndDialog(Dialog& dialog, unsigned int button);
  void Forget(Connection& connection);
  static void Reply(Connection& connection, const Message& reply);

  const Script script_;
  const int processId_;
  const std::shared_ptr<proxy_protocol::StopSignal> stop_;

  mutable std::recursive_mutex mutex_;
  mutable std::condition_variable_any changed_;
  std::list<Connection> connections_;
  std::map<uint32_t, Dialog> dialogs_;
  std::vector<Message> requests_;
  bool hangs_ = false;
  /// With how many requests it dies; 0: it does not.
  size_t lastRequest_ = 0;
  Death death_ = Death::kBeforeReply;
  bool isDead_ = false;
  std::list<std::thread> threads_;
  /// Holds the listener, which ends with it.
  std::thread accepting_;
};
