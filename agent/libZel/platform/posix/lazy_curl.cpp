// libcurl, loaded at its first use. The libraries that come with it would cost an idle agent four
// megabytes, and most agents never fetch a URL. Whoever links this file instead of libcurl calls
// these functions, which stay inside the library that links them.

#include <cstdarg>

#define CURL_DISABLE_TYPECHECK
#include <curl/curl.h>
#undef curl_easy_setopt
#undef curl_easy_getinfo

#include "agent/libZel/platform/posix/loaded_function.h"

namespace {

/// Throws std::runtime_error when there is none.
template <typename Function>
Function* Load(Function* declared, const char* name) {
  return LoadFunction(declared, "libcurl.so.4", "libcurl", name);
}

}  // namespace

extern "C" {

CURLcode curl_global_init(long flags) {
  static const auto real = Load(&curl_global_init, "curl_global_init");
  return real(flags);
}

CURL* curl_easy_init() {
  static const auto real = Load(&curl_easy_init, "curl_easy_init");
  return real();
}

// Every option's value is one machine word.
CURLcode curl_easy_setopt(CURL* handle, CURLoption option, ...) {
  static const auto real = Load(&curl_easy_setopt, "curl_easy_setopt");
  va_list arguments;
  va_start(arguments, option);
  void* const value = va_arg(arguments, void*);
  va_end(arguments);
  return real(handle, option, value);
}

CURLcode curl_easy_perform(CURL* handle) {
  static const auto real = Load(&curl_easy_perform, "curl_easy_perform");
  return real(handle);
}

// Every answer goes to a place that the caller points to.
CURLcode curl_easy_getinfo(CURL* handle, CURLINFO info, ...) {
  static const auto real = Load(&curl_easy_getinfo, "curl_easy_getinfo");
  va_list arguments;
  va_start(arguments, info);
  void* const place = va_arg(arguments, void*);
  va_end(arguments);
  return real(handle, info, place);
}

void curl_easy_cleanup(CURL* handle) {
  static const auto real = Load(&curl_easy_cleanup, "curl_easy_cleanup");
  real(handle);
}

const char* curl_easy_strerror(CURLcode code) {
  static const auto real = Load(&curl_easy_strerror, "curl_easy_strerror");
  return real(code);
}

char* curl_easy_escape(CURL* handle, const char* text, int length) {
  static const auto real = Load(&curl_easy_escape, "curl_easy_escape");
  return real(handle, text, length);
}

void curl_free(void* memory) {
  static const auto real = Load(&curl_free, "curl_free");
  real(memory);
}

curl_slist* curl_slist_append(curl_slist* list, const char* text) {
  static const auto real = Load(&curl_slist_append, "curl_slist_append");
  return real(list, text);
}

void curl_slist_free_all(curl_slist* list) {
  static const auto real = Load(&curl_slist_free_all, "curl_slist_free_all");
  real(list);
}

CURLU* curl_url() {
  static const auto real = Load(&curl_url, "curl_url");
  return real();
}

void curl_url_cleanup(CURLU* url) {
  static const auto real = Load(&curl_url_cleanup, "curl_url_cleanup");
  real(url);
}

CURLUcode curl_url_get(CURLU* url, CURLUPart part, char** value, unsigned flags) {
  static const auto real = Load(&curl_url_get, "curl_url_get");
  return real(url, part, value, flags);
}

CURLUcode curl_url_set(CURLU* url, CURLUPart part, const char* value, unsigned flags) {
  static const auto real = Load(&curl_url_set, "curl_url_set");
  return real(url, part, value, flags);
}

const char* curl_url_strerror(CURLUcode code) {
  static const auto real = Load(&curl_url_strerror, "curl_url_strerror");
  return real(code);
}

}  // extern "C"
