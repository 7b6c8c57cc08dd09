#include "agent/libZelCore/user_texts.h"

#include <utility>

#include "agent/libZel/proxy_session.h"
#include "agent/libZelCore/core_log.h"

namespace {

// Long enough for all texts of one action.
constexpr std::chrono::seconds kToldAge{5};
constexpr size_t kMaxTold = 100;
constexpr size_t kMaxUnknown = 256;
constexpr uint32_t kAskTimeoutMs = 1000;

}  // namespace

UserTexts::UserTexts(const std::vector<std::filesystem::path>& directories, std::string language,
                     Ask ask)
    : translations_(directories,
                    [](const std::string& line) {
                      CoreLog().WarningWithNL("Translations: %S", ZelString(line));
                    }),
      language_(std::move(language)),
      ask_(std::move(ask)) {}

std::string UserTexts::LanguageAt(const std::string& pipe) {
  if (pipe.empty()) return language_;
  // Held while the proxy is asked: others would ask the same.
  const std::lock_guard lock(toldMutex_);
  const auto now = std::chrono::steady_clock::now();
  auto told = told_.find(pipe);
  if (told == told_.end() || now - told->second.at > kToldAge) {
    std::erase_if(told_, [&](const auto& entry) { return now - entry.second.at > kToldAge; });
    if (told_.size() >= kMaxTold) told_.clear();
    std::string language = ask_(pipe);
    told = told_.insert_or_assign(pipe, Told{std::move(language), std::chrono::steady_clock::now()})
               .first;
  }
  return told->second.language.empty() ? language_ : told->second.language;
}

std::string UserTexts::Find(const std::string& key, const std::string& language) {
  if (auto text = translations_.Find(key, language)) return *std::move(text);
  NoteUnknown(key);
  return key;
}

void UserTexts::NoteUnknown(const std::string& key) {
  {
    const std::lock_guard lock(unknownMutex_);
    if (unknown_.size() >= kMaxUnknown || !unknown_.insert(key).second) return;
  }
  CoreLog().WarningWithNL("There is no text for the key \"%S\"", ZelString(key));
}

std::string AskProxyForLanguage(const std::string& pipe) {
  XmlProxyClient client;
  if (!client.Initialise(pipe, kAskTimeoutMs, XmlProxyClient::kUserSession)) return {};
  const SessionInfo session = SessionOf(client);
  return session.outcome ? std::string(session.language.Utf8()) : std::string();
}
