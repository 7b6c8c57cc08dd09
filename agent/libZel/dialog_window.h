#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "agent/libZel/dialog_options.h"
#include "agent/libZel/proxy_connection.h"
#include "agent/proxy_protocol/channel.h"
#include "libZel/string.h"

/// What a dialog shows. Texts are WTF-8.
struct DialogRequest {
  std::string text;
  std::string firstButton;
  std::string secondButton;
  std::string closeButton;
  /// As `SkinDialog` numbers the sets.
  unsigned int buttons = 0;
  DialogOptions options;
};

/// A dialog at the proxy, seen from the agent. It goes with the connection that this object holds.
///
/// Each function tells whether the proxy could be reached, and says in the log why not. Threads:
/// any number; while one waits in `Show`, `Close` and `Abandon` go on.
class DialogWindow {
 public:
  /// Throws std::system_error.
  explicit DialogWindow(const ZelString& pipe);

  /// Connects and has the window made.
  bool Create(const DialogRequest& request);
  /// Whether `Create` has reached the proxy, or has not been called.
  bool IsReached() const { return isReached_; }
  /// Whether it was made: false also when the proxy refused to.
  bool IsMade() const { return number_ >= 0; }
  /// Puts it on the screen. False also when the proxy cannot, and for a second time.
  bool Show(bool wait);
  /// Takes it down; a `Show` that waits returns at once, and so does one that is still to come.
  /// When the proxy cannot be told, the connection is dropped, with which the dialog goes. One that
  /// the proxy refused to make is no failure, one whose proxy was not reached is.
  bool Close(bool waitUntilGone);
  /// How it ended; 0 while it has not. None when the proxy cannot be asked.
  std::optional<unsigned int> Button();
  /// Lets go of the dialog, which then is taken down.
  void Drop();
  /// The same, also while another thread waits: from now on the proxy cannot be reached.
  void Abandon();

 private:
  using Answer = XmlProxyClient::Connection::Answer;

  bool AskToCreate(const DialogRequest& request);
  std::optional<unsigned int> ReadButton(const proxy_protocol::Message& reply) const;
  std::vector<proxy_protocol::Field> Fields(const char* field, bool value) const;
  bool EndShow(const Answer& answer, bool wait);
  bool TellToClose(bool waitUntilGone);
  bool LogFailure(const char* what, const std::string& why) const;

  const ZelString pipe_;
  /// Raised: who waits in `Show` returns.
  const std::shared_ptr<proxy_protocol::StopSignal> stop_;
  /// The process that has made the dialog; set before its number.
  std::string proxy_;
  /// The proxy's number of the dialog; negative: there is none.
  std::atomic<int64_t> number_ = -1;
  std::atomic<bool> isReached_ = true;
  std::atomic<bool> isClosed_ = false;
  /// Whether the proxy knows that.
  std::atomic<bool> isWithdrawn_ = false;
  std::atomic<bool> isWaiting_ = false;
  std::atomic<bool> isAbandoned_ = false;

  /// Held during each question over the connection, a `Show` that waits included.
  std::mutex mutex_;
  std::unique_ptr<XmlProxyClient::Connection> connection_;
  unsigned int buttons_ = 0;
  bool isShown_ = false;
  /// Once it is known.
  std::optional<unsigned int> button_;
};
