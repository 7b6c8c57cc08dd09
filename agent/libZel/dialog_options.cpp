#include "agent/libZel/dialog_options.h"

#include <algorithm>

#include "agent/libZel/ascii.h"
#include "agent/libZel/whole_number.h"

namespace {

constexpr std::string_view kTimeout = " -InformationPopupTimeOut ";
constexpr std::string_view kMessage = " -InformationPopup \"";
constexpr std::string_view kImagePath = " -ImagePath \"";
constexpr std::string_view kTitle = " -n \"";
constexpr std::string_view kTopMost = " -TopMost ";
/// Between path and title.
constexpr std::string_view kQuotedTitle = "\" -n \"";

// Takes the option away that the string begins with. True also when there is none.
bool TakeTimeout(std::string_view* rest, DialogOptions* options) {
  if (!rest->starts_with(kTimeout)) return true;
  rest->remove_prefix(kTimeout.size());
  const auto end = std::find_if_not(rest->begin(), rest->end(), IsAsciiDigit);
  const auto count = static_cast<size_t>(end - rest->begin());
  const auto timeoutS = ReadWholeNumber<uint32_t>(rest->substr(0, count));
  if (!timeoutS) return false;
  options->timeoutS = *timeoutS;
  rest->remove_prefix(count);
  return true;
}

// The message is known, so its end needs no search.
bool TakeMessage(std::string_view* rest, std::string_view message) {
  if (!rest->starts_with(kMessage)) return true;
  rest->remove_prefix(kMessage.size());
  if (!rest->starts_with(message)) return false;
  rest->remove_prefix(message.size());
  if (!rest->starts_with('"')) return false;
  rest->remove_prefix(1);
  return true;
}

// What precedes ends in a quote, or is nothing: a string that ends in a digit ends in this option.
bool TakeTopMost(std::string_view* rest, DialogOptions* options) {
  if (rest->empty() || !IsAsciiDigit(rest->back())) return true;
  const size_t digits = rest->find_last_not_of("0123456789") + 1;
  const auto number = ReadWholeNumber<uint32_t>(rest->substr(digits));
  if (!number) return false;
  std::string_view before = rest->substr(0, digits);
  if (!before.ends_with(kTopMost)) return false;
  before.remove_suffix(kTopMost.size());
  options->staysOnTop = *number != 0;
  *rest = before;
  return true;
}

// The text between the option's opening quote and the quote at the string's end.
std::optional<std::string_view> OptionText(std::string_view rest, std::string_view option) {
  if (!rest.starts_with(option)) return std::nullopt;
  rest.remove_prefix(option.size());
  if (!rest.ends_with('"')) return std::nullopt;
  rest.remove_suffix(1);
  return rest;
}

bool ReadTexts(std::string_view rest, DialogOptions* options) {
  if (rest.empty()) return true;
  if (const auto title = OptionText(rest, kTitle)) {
    options->title = *title;
    return true;
  }
  const auto texts = OptionText(rest, kImagePath);
  if (!texts) return false;
  const size_t split = texts->find(kQuotedTitle);
  options->imagePath = texts->substr(0, split);
  if (split != texts->npos) options->title = texts->substr(split + kQuotedTitle.size());
  return true;
}

}  // namespace

std::optional<DialogOptions> ReadDialogOptions(std::string_view options, std::string_view message) {
  DialogOptions read;
  std::string_view rest = options;
  const bool isUnderstood = TakeTimeout(&rest, &read) && TakeMessage(&rest, message) &&
                            TakeTopMost(&rest, &read) && ReadTexts(rest, &read);
  if (!isUnderstood) return std::nullopt;
  return read;
}
