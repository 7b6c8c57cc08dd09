#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "agent/translations/translations.h"

/// The texts that the user sees, and in which language. Any number of threads may call.
class UserTexts {
 public:
  /// Asks the proxy at `pipe` for its user's language; empty when it does not tell.
  using Ask = std::function<std::string(const std::string& pipe)>;

  /// Reads the texts below `directories`, later ones over earlier ones; what is wrong with them
  /// goes to the log. `language` is for users whose own is not known.
  UserTexts(const std::vector<std::filesystem::path>& directories, std::string language, Ask ask);

  /// The language of the user whose proxy listens at `pipe`, which may be empty: as the proxy told
  /// within the last five seconds, else it is asked.
  std::string LanguageAt(const std::string& pipe);

  /// The key itself when there is no such text, noted in the log once.
  std::string Find(const std::string& key, const std::string& language);

 private:
  struct Told {
    std::string language;
    std::chrono::steady_clock::time_point at;
  };

  void NoteUnknown(const std::string& key);

  const Translations translations_;
  const std::string language_;
  const Ask ask_;
  std::mutex toldMutex_;
  std::map<std::string, Told> told_;
  std::mutex unknownMutex_;
  std::set<std::string> unknown_;
};

/// Asks a real proxy; gives up after about two seconds, one for connecting and one for the answer.
std::string AskProxyForLanguage(const std::string& pipe);
