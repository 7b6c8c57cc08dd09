#pragma once

#include <curl/curl.h>

#include <memory>
#include <string>

/// A URL as libcurl reads it.
class CurlUrl {
 public:
  /// `flags` are those of curl_url_set.
  CurlUrl(const std::string& text, unsigned flags)
      : url_(curl_url(), curl_url_cleanup),
        result_(url_ ? curl_url_set(url_.get(), CURLUPART_URL, text.c_str(), flags)
                     : CURLUE_OUT_OF_MEMORY) {}

  /// CURLUE_OK, or why the text is no URL.
  CURLUcode Result() const { return result_; }

  /// Empty when it has none.
  std::string Part(CURLUPart part) const {
    char* text = nullptr;
    if (curl_url_get(url_.get(), part, &text, 0) != CURLUE_OK) return {};
    const std::unique_ptr<char, void (*)(void*)> owned(text, curl_free);
    return text;
  }

 private:
  std::unique_ptr<CURLU, void (*)(CURLU*)> url_;
  CURLUcode result_;
};
