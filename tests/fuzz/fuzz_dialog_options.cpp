// Option strings of dialogs: what is read can be written and read again, and the texts in a string
// that an action makes never become options.

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>

#include "agent/libZel/dialog_options.h"
#include "tests/fuzz/require.h"

namespace {

std::string Written(const DialogOptions& options, std::string_view message) {
  return " -InformationPopupTimeOut " + std::to_string(options.timeoutS) + " -InformationPopup \"" +
         std::string(message) + "\" -ImagePath \"" + options.imagePath + "\" -n \"" +
         options.title + "\" -TopMost " + (options.staysOnTop ? "1" : "0");
}

// Up to the next line feed, which is taken away too.
std::string TakeLine(std::string_view* rest) {
  const size_t end = std::min(rest->find('\n'), rest->size());
  const std::string line(rest->substr(0, end));
  rest->remove_prefix(std::min(end + 1, rest->size()));
  return line;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view rest(reinterpret_cast<const char*>(data), size);
  const std::string message = TakeLine(&rest);
  std::string_view texts = rest;

  if (const auto read = ReadDialogOptions(rest, message)) {
    const bool isPlainPath = read->imagePath.find("\" -n ") == std::string::npos;
    if (isPlainPath) Require(ReadDialogOptions(Written(*read, message), message) == read);
  }

  DialogOptions options;
  options.timeoutS = static_cast<uint32_t>(size);
  options.imagePath = TakeLine(&texts);
  options.title = std::string(texts);
  options.staysOnTop = size % 2 == 1;
  if (options.imagePath.find("\" -n ") != std::string::npos) return 0;
  const auto again = ReadDialogOptions(Written(options, message), message);
  Require(again.has_value() && *again == options);
  return 0;
}
