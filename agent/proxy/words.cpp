#include "agent/proxy/words.h"

ProxyWords WordsIn(const Translations& translations, const std::string& language) {
  const auto text = [&](const char* key, const char* english) {
    const std::string found = translations.Find(key, language).value_or("");
    return found.empty() ? std::string(english) : found;
  };
  ProxyWords words;
  words.dialog.yes = text("_ACTION_YES_", "Yes");
  words.dialog.no = text("_ACTION_NO_", "No");
  words.dialog.close = text("_ACTION_CLOSE_", "Close");
  words.dialog.title = text("_DIALOG_TITLE_", "Message from your administrator");
  words.desktop.timeLeft = text("_DIALOG_TIMELEFT_", "Closes in {Time}");
  words.desktop.lockTitle = text("_MESSAGEBOXTITLE_DEVICELOCKED_", "This computer is locked");
  words.desktop.lockText = text("_LOCK_TEXT_", "Please wait.");
  words.desktop.isRightToLeft = Translations::IsRightToLeft(language);
  return words;
}
