#include "agent/proxy/dialog.h"

#include <exception>
#include <stdexcept>
#include <utility>

Dialog::Dialog(Desktop& desktop, uint32_t number, DialogContent content)
    : desktop_(desktop), number_(number), content_(std::move(content)) {}

void Dialog::Show(Desktop::Ended ended) {
  if (BeginToAppear(&ended)) return Appear();
  if (ended) ended(Button());
}

bool Dialog::BeginToAppear(Desktop::Ended* ended) {
  const std::lock_guard lock(mutex_);
  if (wasShown_) throw std::runtime_error("the dialog was shown before");
  wasShown_ = true;
  if (phase_ == Phase::kEnded) return false;
  ended_ = std::exchange(*ended, nullptr);
  phase_ = Phase::kAppearing;
  return true;
}

void Dialog::Appear() {
  const DialogContent content = std::move(content_);
  try {
    desktop_.ShowDialog(number_, content,
                        [self = shared_from_this()](ButtonId button) { self->End(button); });
  } catch (const std::exception&) {
    ForgetEnded();
    End(0);
    throw;
  }
  {
    const std::lock_guard lock(mutex_);
    if (phase_ == Phase::kEnded) return;
    phase_ = Phase::kOpen;
    if (!isClosing_) return;
  }
  // Who closes it meanwhile waits for this thread. Its failure is the desktop's and changes nothing
  // for who showed the dialog: it has ended.
  try {
    TakeDown();
  } catch (const std::exception&) {
  }
}

void Dialog::Close() {
  {
    std::unique_lock lock(mutex_);
    isClosing_ = true;
    if (phase_ == Phase::kMade) {
      phase_ = Phase::kEnded;
      content_ = {};
    }
    if (phase_ == Phase::kAppearing)
      changed_.wait(lock, [this] { return phase_ == Phase::kEnded; });
    if (phase_ == Phase::kEnded) return;
  }
  TakeDown();
}

void Dialog::TakeDown() {
  try {
    desktop_.CloseDialog(number_);
  } catch (const std::exception&) {
    End(0);
    throw;
  }
  End(0);
}

void Dialog::End(ButtonId button) {
  Desktop::Ended ended;
  ButtonId counted = 0;
  {
    const std::lock_guard lock(mutex_);
    if (phase_ == Phase::kEnded) return;
    phase_ = Phase::kEnded;
    counted = button_ = isClosing_ ? 0 : button;
    ended = std::exchange(ended_, nullptr);
  }
  changed_.notify_all();
  if (!ended) return;
  try {
    ended(counted);
  } catch (const std::exception&) {
    // Without memory for the reply its connection is of no use; the desktop goes on.
  }
}

void Dialog::ForgetEnded() {
  const std::lock_guard lock(mutex_);
  ended_ = nullptr;
}

bool Dialog::HasEnded() const {
  const std::lock_guard lock(mutex_);
  return phase_ == Phase::kEnded;
}

ButtonId Dialog::Button() const {
  const std::lock_guard lock(mutex_);
  return button_;
}
