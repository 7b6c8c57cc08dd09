#pragma once

#include "libZel/string.h"

/// Internet addresses of the forms http://... and https://... (RFC 3986), taken apart.
class UrlParseInet {
 public:
  /// Takes `url` apart: 1, or 0 (and every part is empty) when it is no such URL, to the letter of
  /// RFC 3986: everything beyond ASCII is percent-encoded. That encoding is undone in user and
  /// password, which hold no NUL; a URL may have neither, or empty ones.
  int LoadUrl(const ZelString& url);
  const ZelString& GetUser() const { return user_; }
  const ZelString& GetPassword() const { return password_; }
  /// Without the brackets of an IPv6 address.
  const ZelString& GetHost() const { return host_; }

  /// 1 when `text` is an http or https URL with a host (the scheme in any case), else 0.
  static int CanHandleUrl(const ZelString& text);

 private:
  ZelString user_;
  ZelString password_;
  ZelString host_;
};
