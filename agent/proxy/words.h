#pragma once

#include <string>

#include "agent/proxy/desktop.h"
#include "agent/proxy/dialog_fields.h"
#include "agent/translations/translations.h"

/// The proxy's own words.
struct ProxyWords {
  DialogWords dialog;
  DesktopTexts desktop;
};

/// In `language`, a tag; what the translations lack is in English.
ProxyWords WordsIn(const Translations& translations, const std::string& language);
