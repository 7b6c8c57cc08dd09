#include "agent/proxy/platform/posix/dialog_hearing.h"

#include <glibmm/main.h>

#include <gdk/gdkx.h>  // last: it defines macros with common names

namespace {

constexpr unsigned kDeafnessMs = 500;

// What was sent before, and only now is taken from the queue. The clock wraps after seven weeks.
bool IsBefore(guint32 time, guint32 since) {
  return time != GDK_CURRENT_TIME && static_cast<gint32>(time - since) < 0;
}

}  // namespace

DialogHearing::~DialogHearing() {
  hearing_.disconnect();
  hearingKeys_.disconnect();
}

void DialogHearing::BecomeDeaf() {
  isDeaf_ = true;
  hearing_.disconnect();
  hearing_ = Glib::signal_timeout().connect(
      sigc::bind_return(sigc::mem_fun(*this, &DialogHearing::Hear), false), kDeafnessMs);
  BecomeDeafToKeys();
}

void DialogHearing::BecomeDeafToKeys() {
  isDeafToKeys_ = true;
  hearingKeys_.disconnect();
  hearingKeys_ = Glib::signal_timeout().connect(
      sigc::bind_return(sigc::mem_fun(*this, &DialogHearing::HearKeys), false), kDeafnessMs);
}

void DialogHearing::SetCovered(bool isCovered) {
  const bool comesToLight = isCovered_ && !isCovered;
  isCovered_ = isCovered;
  if (comesToLight) BecomeDeaf();
}

void DialogHearing::Hear() {
  if (!window_.get_realized()) return;
  hearsSinceMs_ = ServerTime();
  isDeaf_ = false;
}

void DialogHearing::HearKeys() {
  if (!window_.get_realized()) return;
  hearsKeysSinceMs_ = ServerTime();
  heldKeys_ = KeysDown();
  isDeafToKeys_ = false;
}

guint32 DialogHearing::ServerTime() const {
  return ::gdk_x11_get_server_time(window_.get_window()->gobj());
}

DialogHearing::Keys DialogHearing::KeysDown() {
  Keys keys{};
  ::XQueryKeymap(::gdk_x11_get_default_xdisplay(), keys.data());
  return keys;
}

bool DialogHearing::IsTooEarly(const GdkEvent& event) {
  if (IsDeaf() || IsBefore(::gdk_event_get_time(&event), hearsSinceMs_)) return true;
  const bool isKey = event.type == GDK_KEY_PRESS || event.type == GDK_KEY_RELEASE;
  return isKey && IsKeyTooEarly(event.key);
}

bool DialogHearing::IsKeyTooEarly(const GdkEventKey& key) {
  if (isDeafToKeys_ || IsBefore(key.time, hearsKeysSinceMs_)) return true;

  // The repetitions of a key that was already down.
  const unsigned code = key.hardware_keycode;
  if (code >= heldKeys_.size() * 8) return false;
  char& keys = heldKeys_[code / 8];
  const bool isStillHeld = (static_cast<unsigned char>(keys) >> (code % 8) & 1U) != 0;
  if (isStillHeld && key.type == GDK_KEY_RELEASE)
    keys = static_cast<char>(keys & ~(1 << (code % 8)));
  return isStillHeld;
}
