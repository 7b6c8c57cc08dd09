#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

/// What the option string of a `SkinDialog` says besides the message. Texts are WTF-8.
struct DialogOptions {
  /// 0: none.
  uint32_t timeoutS = 0;
  /// Empty: none.
  std::string imagePath;
  /// Empty: the proxy's own.
  std::string title;
  bool staysOnTop = false;

  friend bool operator==(const DialogOptions&, const DialogOptions&) = default;
};

/// Reads the option string of the dialog with this message; none when it is not of the form that
/// libZel/skin_dialog.h tells. Whatever the texts in it are, none of them becomes an option, with
/// one exception: a path that holds `" -n ` is taken to end there when a quote follows.
std::optional<DialogOptions> ReadDialogOptions(std::string_view options, std::string_view message);
